// Information about this host. docs/system-information.md describes the texts and the counts on each system.
#pragma once

#include "qor/glue/binding.h"
#include "qor/system/Interface.h"
#include "qor/system/Memory.h"

// Physical memory in bytes.
struct qorMemoryInfo {
    uint64 total; // usable by this process; a lower limit of its cgroup or job counts
    uint64 used;  // total minus free
    uint64 free;  // available without swapping, including caches that can be dropped
};

// Texts replace the content of `out`. An operation that returns false leaves it unchanged; those without a remark about
// false succeed on every host. The texts and IsVirtualMachine describe the moment of the object's creation, all other
// results the moment of the call. Any thread.
class IQORSystemInfo : public IQORInterface {
public:
    // Returns false and sets all members to 0 if the system does not provide the numbers.
    virtual bool GetMemoryInfo(qorMemoryInfo& info) noexcept = 0;

    // The size of a memory page in bytes.
    virtual uint32 GetPageSize() noexcept = 0;

    // The number of logical processors that this process may use, at least 1, as limited by its affinity and by the
    // processor set of its group of processes. A limit on processor time does not count.
    virtual uint32 GetLogicalCPUCount() noexcept = 0;

    // The number of cores that these processors belong to, at least 1. If the system does not say, each processor
    // counts as a core.
    virtual uint32 GetPhysicalCoreCount() noexcept = 0;

    // The kernel with its version, and the architecture.
    virtual bool GetPlatformString(qorString& out) noexcept = 0;

    // The distribution or edition, followed by the environment: "Debian GNU/Linux 12 (bookworm), docker container, KVM
    // guest". Returns false if neither is known.
    virtual bool GetEnhancedPlatformString(qorString& out) noexcept = 0;

    // The operating system: its name, its version and its own description.
    virtual bool GetSystemType(qorString& out) noexcept = 0;
    virtual bool GetSystemVersion(qorString& out) noexcept = 0;
    virtual bool GetSystemDescription(qorString& out) noexcept = 0;

    // The trade name of the processor.
    virtual bool GetCPUType(qorString& out) noexcept = 0;

    // The processor's manufacturer, family, model and stepping, and the vector extensions that programs can use.
    // Returns false if nothing is known.
    virtual bool GetCPUTypeExtended(qorString& out) noexcept = 0;

    // The hypervisor that this virtual machine runs on: "KVM", "Hyper-V", "VMware". Returns false if this host is not a
    // virtual machine.
    virtual bool GetHypervisor(qorString& out) noexcept = 0;

    // A container does not count as a virtual machine, but its host may be one.
    virtual bool IsVirtualMachine() noexcept = 0;

protected:
    ~IQORSystemInfo() = default;
};

// Creates the object. Throws std::bad_alloc.
inline void create_IQORSystemInfo(IQORSystemInfo** out) {
    qor::glue::create_IQORSystemInfo(out);
    qor::glue::or_throw(*out);
}
