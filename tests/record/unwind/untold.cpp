#include "untold.h"

namespace qor::test {

// The name is one of those in the header.
[[gnu::noinline]] void UNTOLD(unsigned levels, trail& way, action act, void* argument) {
    way.add();
    const unsigned kept[5] = {levels, levels, levels, levels, levels};
    __asm__ volatile("" : : "r"(kept) : "memory");
    if (levels == 0)
        act(argument);
    else
        UNTOLD(levels - 1, way, act, argument);
    __asm__ volatile("" : : "r"(kept) : "memory");
}

} // namespace qor::test
