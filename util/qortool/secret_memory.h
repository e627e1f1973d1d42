// Overwriting secrets, which each system has its own way to do.
#pragma once

#include <cstddef>

// Overwrites memory, even if nobody reads it afterwards.
void wipe(void* memory, std::size_t size) noexcept;

// Overwrites the command line that the system keeps beside the arguments of main.
void wipe_system_command_line() noexcept;
