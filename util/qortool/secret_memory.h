// Overwrites secrets. Each system has its own way to do this.
#pragma once

#include <cstddef>

// Overwrites memory; the compiler does not remove the writes even if nobody reads the memory afterwards.
void wipe(void* memory, std::size_t size) noexcept;

// Overwrites the system's copies of the command line, apart from the arguments of main.
void wipe_system_command_line() noexcept;
