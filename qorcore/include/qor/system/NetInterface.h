// The network interfaces of the host, as a snapshot.
#pragma once

#include "qor/glue/binding.h"
#include "qor/system/Interface.h"
#include "qor/system/Network.h"

class qorString;
class qorStringArray;
class uint8_Array;

// One network interface. The object is immutable, outlives its list, and any thread may use it. docs/network.md
// describes the strings on each system.
class IQORNetInterface : public IQORInterface {
public:
    // The system's number of the interface, from 1.
    virtual uint32 GetIndex() noexcept = 0;

    // The technical name: "eth0"; on Windows an identifier in braces.
    virtual void GetName(qorString& out) noexcept = 0;

    // A description: manufacturer and model if known, driver, location.
    virtual void GetDescription(qorString& out) noexcept = 0;

    // Further names that the system accepts for it.
    virtual void GetAlternativeNames(qorStringArray& out) noexcept = 0;

    // The name shown to users.
    virtual void GetDisplayName(qorString& out) noexcept = 0;

    // Gets the hardware address, of any length. Returns false and empties `out` if the interface has none.
    virtual bool GetHardwareAddress(uint8_Array& out) noexcept = 0;

    // The interface's own addresses, in the system's order; on a point-to-point link without the peer's. Return false
    // and leave `out` unchanged if there is no such index.
    virtual uint32 GetIPv4Count() noexcept = 0;
    virtual bool GetIPv4Address(uint32 index, qorNetAddress4& out) noexcept = 0;

    // Gets the default gateway that is reached through this interface, with a prefix of 32 bits. Returns false if the
    // interface has no default gateway.
    virtual bool GetExtraIPv4Address(qorNetAddress4& out) noexcept = 0;

    // The same for IPv6. The scope is set for addresses that are only valid on their link, else it is 0.
    virtual uint32 GetIPv6Count() noexcept = 0;
    virtual bool GetIPv6Address(uint32 index, qorNetAddress6& out) noexcept = 0;

protected:
    ~IQORNetInterface() = default;
};

// The list of all interfaces, ordered by number. The object is immutable; any thread may use it.
class IQORNetInterfaceList : public IQORInterface {
public:
    // Finds an interface by its name or an alternative name, compared byte by byte. Returns false and leaves *out
    // unchanged if no interface has this name.
    [[nodiscard]] virtual bool FindInterface(const char* name, IQORNetInterface** out) noexcept = 0;

    // The number of interfaces.
    virtual uint32 GetCount() noexcept = 0;

    // Gets an interface with a new reference. Returns false and leaves *out unchanged if there is no such index.
    [[nodiscard]] virtual bool GetInterface(uint32 index, IQORNetInterface** out) noexcept = 0;

protected:
    ~IQORNetInterfaceList() = default;
};

// Lists the interfaces as they are now, including those that are down. Uses the module qor-network, which is loaded on
// first use. Returns false and leaves *out unchanged on failure (last error).
[[nodiscard]] inline bool qorEnumerateNetInterfaces(IQORNetInterfaceList** out) noexcept {
    return qor::glue::qorEnumerateNetInterfaces(out);
}
