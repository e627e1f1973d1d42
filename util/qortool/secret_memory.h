// The system's part of keeping a secret.
#pragma once

#include <cstddef>

// Overwrites memory, even if nobody reads it afterwards.
void wipe(void* memory, std::size_t size) noexcept;

// Overwrites the command line that the system keeps apart from the words of main.
void wipe_system_command_line() noexcept;
