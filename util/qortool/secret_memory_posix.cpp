#include "secret_memory.h"

#include <cstring>

void wipe(void* memory, std::size_t size) noexcept { explicit_bzero(memory, size); }

// The words of main are what the system shows.
void wipe_system_command_line() noexcept {}
