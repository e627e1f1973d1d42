// The process entry behind the one that each system has.
#pragma once

// `argv` holds UTF-8, the program's name first. Returns the exit code. Throws std::bad_alloc, which the entry of the
// process catches: what the program holds is destroyed on the way.
int run_tool(int argc, char* const* argv);
