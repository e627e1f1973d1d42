// Processors other than x86 do not have the instruction.
#include "system/cpuid.h"

namespace {

class none final : public qor::system::cpuid {
public:
    registers leaf(uint32, uint32) const noexcept override { return {}; }
    registers hypervisor_leaf(uint32) const noexcept override { return {}; }
    uint64 kept_registers() const noexcept override { return 0; }
};

} // namespace

const qor::system::cpuid& qor::system::this_cpuid() noexcept {
    static constexpr none it;
    return it;
}
