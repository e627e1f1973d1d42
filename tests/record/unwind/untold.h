// Functions that no table describes.
#pragma once

#include "frames.h"

namespace qor::test {

// Where calls return to, innermost last.
struct trail {
    std::uintptr_t returns[16];
    unsigned count;

    [[gnu::always_inline]] void add() {
        returns[count++] = reinterpret_cast<std::uintptr_t>(__builtin_return_address(0));
    }
};

void untold_with_frame_pointers(unsigned levels, trail& way, action act, void* argument);
void untold_without_frame_pointers(unsigned levels, trail& way, action act, void* argument);

} // namespace qor::test
