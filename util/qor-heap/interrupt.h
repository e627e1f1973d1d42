// Ctrl-C, and the system's other requests to end: the first one ends the reading, so that the program can still show
// what it knows; the second one ends the program.
#pragma once

namespace qor::heap_tool {

// Call it once.
void catch_interrupts();

bool is_interrupted() noexcept;

} // namespace qor::heap_tool
