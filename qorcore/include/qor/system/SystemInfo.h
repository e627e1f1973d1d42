// What this host is. docs/system-information.md tells what each text means on each system, and what counts.
#pragma once

#include "qor/glue/binding.h"
#include "qor/system/Interface.h"
#include "qor/system/Memory.h"

// Physical memory in bytes.
struct qorMemoryInfo {
    uint64 total; // that this process can use: where a limit of its group of processes is lower, that limit
    uint64 used;  // total less free
    uint64 free;  // that can be had without swapping, caches that would give way included
};

// Texts replace what `out` held. Those that return false leave it as it was; each of the others tells something on
// every host. The texts and IsVirtualMachine speak of the moment at which the object was made, all else of that of the
// call. Any thread.
class IQORSystemInfo : public IQORInterface {
public:
    // False: the system does not tell, and all members are 0.
    virtual bool GetMemoryInfo(qorMemoryInfo& info) noexcept = 0;

    // Bytes of a page of memory.
    virtual uint32 GetPageSize() noexcept = 0;

    // The logical processors that this process may use, at least 1: what its affinity and the set of its group of
    // processes leave. A limit on processor time does not count.
    virtual uint32 GetLogicalCPUCount() noexcept = 0;

    // The cores that these belong to, at least 1. Where the system does not tell, each is taken for a core.
    virtual uint32 GetPhysicalCoreCount() noexcept = 0;

    // The kernel with its version, and the architecture.
    virtual bool GetPlatformString(qorString& out) noexcept = 0;

    // The distribution or edition, followed by what surrounds it: "Debian GNU/Linux 12 (bookworm), docker container,
    // KVM guest". False: neither is known.
    virtual bool GetEnhancedPlatformString(qorString& out) noexcept = 0;

    // The operating system: its name, its version, and how it describes itself.
    virtual bool GetSystemType(qorString& out) noexcept = 0;
    virtual bool GetSystemVersion(qorString& out) noexcept = 0;
    virtual bool GetSystemDescription(qorString& out) noexcept = 0;

    // The processor by its trade name.
    virtual bool GetCPUType(qorString& out) noexcept = 0;

    // Its maker, family, model and stepping, and the vector extensions that programs can use. False: none of it is
    // known.
    virtual bool GetCPUTypeExtended(qorString& out) noexcept = 0;

    // What the virtual machine runs on: "KVM", "Hyper-V", "VMware". False: this host is none.
    virtual bool GetHypervisor(qorString& out) noexcept = 0;

    // A container is none by itself: it is one if its host is.
    virtual bool IsVirtualMachine() noexcept = 0;

protected:
    ~IQORSystemInfo() = default;
};

// A new object, never null. Throws std::bad_alloc.
inline void create_IQORSystemInfo(IQORSystemInfo** out) {
    qor::glue::create_IQORSystemInfo(out);
    qor::glue::or_throw(*out);
}
