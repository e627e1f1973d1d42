#include "system/cpuid.h"

#include <cpuid.h>

namespace {

// CPUID takes some microseconds in a virtual machine, so the highest leaf numbers are read only once.
class instruction final : public qor::system::cpuid {
public:
    instruction() noexcept : m_last(ask(0, 0).a), m_last_extended(ask(first_extended, 0).a) {}

    registers leaf(uint32 number, uint32 subleaf) const noexcept override {
        return number <= (number < first_extended ? m_last : m_last_extended) ? ask(number, subleaf) : registers();
    }
    registers hypervisor_leaf(uint32 number) const noexcept override { return ask(number, 0); }
    uint64 kept_registers() const noexcept override {
        uint32 low, high;
        asm volatile("xgetbv" : "=a"(low), "=d"(high) : "c"(0));
        return uint64{high} << 32 | low;
    }

private:
    static constexpr uint32 first_extended = 0x80000000;

    static registers ask(uint32 number, uint32 subleaf) noexcept {
        registers r;
        __cpuid_count(number, subleaf, r.a, r.b, r.c, r.d);
        return r;
    }

    uint32 m_last, m_last_extended;
};

} // namespace

const qor::system::cpuid& qor::system::this_cpuid() noexcept {
    static const instruction it;
    return it;
}
