// The process entry behind the one that each system has.
#pragma once

// `argv` holds UTF-8, the program's name first. Returns the exit code.
int run_tool(int argc, char* const* argv);
