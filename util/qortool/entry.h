// The portable process entry, called by that of each system.
#pragma once

// `argv` holds UTF-8, the program's name first. Returns the exit code. Throws std::bad_alloc, which the system's entry
// catches; the program's objects are destroyed on the way.
int run_tool(int argc, char* const* argv);
