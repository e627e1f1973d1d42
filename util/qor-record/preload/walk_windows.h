// The stack of the calling thread, by the tables that each function of a module has for exceptions.
#pragma once

#include <cstdint>

namespace qor::record {

// The frames from that of `caller` on, to which a function of this library returns: the addresses to which the calls
// return, the innermost first. 0: it is not on the stack.
unsigned walk_stack(void* caller, std::uintptr_t* frames, unsigned most) noexcept;

// Before code is unloaded.
void forget_rules() noexcept;

} // namespace qor::record
