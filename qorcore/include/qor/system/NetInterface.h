// The network interfaces of the host, as they were when they were listed.
#pragma once

#include "qor/glue/binding.h"
#include "qor/system/Interface.h"
#include "qor/system/Network.h"

class qorString;
class qorStringArray;
class uint8_Array;

// One interface. It does not change, outlives its list, and may be used on any thread. docs/network.md says what the
// strings are made of on each system.
class IQORNetInterface : public IQORInterface {
public:
    // The system's number for it, from 1.
    virtual uint32 GetIndex() noexcept = 0;

    // What programs call it: "eth0"; on Windows its identifier, in braces.
    virtual void GetName(qorString& out) noexcept = 0;

    // What it is: maker and model where they are known, driver, place.
    virtual void GetDescription(qorString& out) noexcept = 0;

    // Further names that the system knows it by.
    virtual void GetAlternativeNames(qorStringArray& out) noexcept = 0;

    // What people call it.
    virtual void GetDisplayName(qorString& out) noexcept = 0;

    // Its bytes, of whatever number. False: it has none, and `out` is empty.
    virtual bool GetHardwareAddress(uint8_Array& out) noexcept = 0;

    // Its own addresses, in the system's order; on a link to a single peer not the peer's. False: there is no such
    // index, and `out` is as it was.
    virtual uint32 GetIPv4Count() noexcept = 0;
    virtual bool GetIPv4Address(uint32 index, qorNetAddress4& out) noexcept = 0;

    // The default gateway that is reached through it, with a prefix of 32 bits. False: there is none.
    virtual bool GetExtraIPv4Address(qorNetAddress4& out) noexcept = 0;

    // The same for IPv6. The scope is that of an address which means something on its link only, for others 0.
    virtual uint32 GetIPv6Count() noexcept = 0;
    virtual bool GetIPv6Address(uint32 index, qorNetAddress6& out) noexcept = 0;

protected:
    ~IQORNetInterface() = default;
};

// All of them, in the order of their numbers. It does not change; any thread.
class IQORNetInterfaceList : public IQORInterface {
public:
    // By name or alternative name, byte for byte. False: there is none, and *out is as it was.
    [[nodiscard]] virtual bool FindInterface(const char* name, IQORNetInterface** out) noexcept = 0;

    // How many there are.
    virtual uint32 GetCount() noexcept = 0;

    // A new reference. False: there is no such index, and *out is as it was.
    [[nodiscard]] virtual bool GetInterface(uint32 index, IQORNetInterface** out) noexcept = 0;

protected:
    ~IQORNetInterfaceList() = default;
};

// Lists the interfaces anew, those that are down among them, by the module qor-network, which is loaded when the first
// list is wanted. False: *out is as it was, and the last error says why.
[[nodiscard]] inline bool qorEnumerateNetInterfaces(IQORNetInterfaceList** out) noexcept {
    return qor::glue::qorEnumerateNetInterfaces(out);
}
