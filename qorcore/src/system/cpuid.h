// Inside the library: the seam to the processor's description of itself.
#pragma once

#include "qor/system/Types.h"

namespace qor::system {

// The CPUID instruction of x86. Tests put a recorded one in its place.
class cpuid {
public:
    struct registers {
        uint32 a = 0, b = 0, c = 0, d = 0;
    };

    // All 0 for a leaf that this processor does not have: for all leaves on other processors.
    virtual registers leaf(uint32 number, uint32 subleaf = 0) const noexcept = 0;

    // A leaf of the hypervisor, which no maximum covers.
    virtual registers hypervisor_leaf(uint32 number) const noexcept = 0;

    // Which registers the operating system keeps for each thread (XCR0); only where leaf 1 says that it does.
    virtual uint64 kept_registers() const noexcept = 0;

protected:
    ~cpuid() = default;
};

const cpuid& this_cpuid() noexcept;

} // namespace qor::system
