// Functions in assembler: with tables that are unusual, wrong, or missing.
#pragma once

#include "frames.h"

namespace qor::test {

extern "C" {

// Right tables.
void code_by_rbx(action act, void* argument); // the frame is found by rbx, rbp is something else
void code_by_r12(action act, void* argument);
void code_with_garbage_in_rbp(action act, void* argument); // which is saved
void code_on_stack(void* top, action act, void* argument); // goes to another stack, and comes back
void code_by_expressions(action act, void* argument);      // all of it told by expressions
void code_without_caller(action act, void* argument);      // says that nobody called it

void code_after_call(); // begins where a call ends that does not return

// Wrong ones.
void code_far_up(action act, void* argument);                          // the frame is said to be 16 MiB long
void code_across_page(action act, void* argument);                     // and 4 KiB
void code_by_lost_rbp(std::uintptr_t rbp, action act, void* argument); // said to be found by a register that is `rbp`
void code_read_from(std::uintptr_t rbp, action act, void* argument);   // said to be found in memory there
void code_to_data(action act, void* argument);                         // said to return to where no code is
void code_circle(action act, void* argument);                          // said to be its own caller
}

} // namespace qor::test
