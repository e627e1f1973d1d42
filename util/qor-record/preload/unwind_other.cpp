// On other processors, a stack is the caller alone.
#include "unwind.h"
#include "unwind_modules.h"

namespace qor::record {

void prepare_unwinder() noexcept {}

unsigned unwind(const machine_context& context, std::uintptr_t* frames, unsigned depth) noexcept {
    if (depth == 0 || context.pc == 0)
        return 0;
    frames[0] = context.pc;
    return 1;
}

} // namespace qor::record
