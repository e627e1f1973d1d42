// Inside the library: the seam to the processor's description of itself.
#pragma once

#include "qor/system/Types.h"

namespace qor::system {

// The CPUID instruction of x86. Tests replace it with a recording.
class cpuid {
public:
    struct registers {
        uint32 a = 0, b = 0, c = 0, d = 0;
    };

    // Returns zeros for a leaf that this processor does not have; a processor other than x86 has no leaves.
    virtual registers leaf(uint32 number, uint32 subleaf = 0) const noexcept = 0;

    // Returns a leaf of the hypervisor. The processor's highest leaf number does not cover these leaves.
    virtual registers hypervisor_leaf(uint32 number) const noexcept = 0;

    // The register state that the operating system saves for each thread (XCR0). Call this only if leaf 1 reports XSAVE
    // support by the operating system.
    virtual uint64 kept_registers() const noexcept = 0;

protected:
    ~cpuid() = default;
};

const cpuid& this_cpuid() noexcept;

} // namespace qor::system
