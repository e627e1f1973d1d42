// For tests: a recorded or invented processor.
#pragma once

#include "system/cpuid.h"

#include <cstring>
#include <map>
#include <string>
#include <utility>

namespace qor::test {

class recorded_cpuid final : public qor::system::cpuid {
public:
    std::map<std::pair<uint32, uint32>, registers> leaves; // by number and subleaf
    uint64 kept = 0;

    registers leaf(uint32 number, uint32 subleaf) const noexcept override {
        const auto found = leaves.find({number, subleaf});
        return found != leaves.end() ? found->second : registers();
    }
    registers hypervisor_leaf(uint32 number) const noexcept override { return leaf(number, 0); }
    uint64 kept_registers() const noexcept override { return kept; }

    // Adds a hypervisor with a name of twelve bytes at its leaf, and sets the processor's bit for it.
    recorded_cpuid& add_hypervisor(std::string name, uint32 at = 0x40000000) {
        name.resize(12, '\0');
        registers& found = leaves[{at, 0}];
        std::memcpy(&found.b, name.data(), 4);
        std::memcpy(&found.c, name.data() + 4, 4);
        std::memcpy(&found.d, name.data() + 8, 4);
        leaves[{1, 0}].c |= uint32{1} << 31;
        return *this;
    }
};

// An AMD EPYC of family 26, in a KVM guest.
inline recorded_cpuid epyc_in_kvm() {
    recorded_cpuid source;
    source.leaves = {
        {{0x00000000, 0}, {0x0000001c, 0x68747541, 0x444d4163, 0x69746e65}},
        {{0x00000001, 0}, {0x00b00f21, 0x00020800, 0xfffa3203, 0x178bfbff}},
        {{0x00000007, 0}, {0x00000001, 0xf1bf07ab, 0x00405fc6, 0x00000110}},
        {{0x00000007, 1}, {0x00000030, 0x00000000, 0x00000000, 0x00000000}},
        {{0x80000002, 0}, {0x20444d41, 0x43595045, 0x00000000, 0x00000000}},
        {{0x40000000, 0}, {0x40000001, 0x4b4d564b, 0x564b4d56, 0x0000004d}},
    };
    source.kept = 0xe7;
    return source;
}

// An Intel Xeon E5-2680 v4 without a hypervisor.
inline recorded_cpuid bare_xeon() {
    recorded_cpuid source;
    source.leaves = {
        {{0x00000000, 0}, {0x00000014, 0x756e6547, 0x6c65746e, 0x49656e69}},
        {{0x00000001, 0}, {0x000406f1, 0x00200800, 0x7ffefbff, 0xbfebfbff}},
        {{0x00000007, 0}, {0x00000000, 0x021cbfbb, 0x00000000, 0xbc000400}},
        {{0x80000002, 0}, {0x65746e49, 0x2952286c, 0x6f655820, 0x2952286e}}, // "Intel(R) Xeon(R)"
        {{0x80000003, 0}, {0x55504320, 0x2d354520, 0x30383632, 0x20347620}}, // " CPU E5-2680 v4 "
        {{0x80000004, 0}, {0x2e322040, 0x48473034, 0x0000007a, 0x00000000}}, // "@ 2.40GHz"
    };
    source.kept = 0x07;
    return source;
}

} // namespace qor::test
