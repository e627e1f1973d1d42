#include "secret_memory.h"

#include <cstring>

void wipe(void* memory, std::size_t size) noexcept {
    // An empty string may have no memory at all.
    if (size != 0)
        explicit_bzero(memory, size);
}

// The system shows the arguments of main themselves, so there is no other copy.
void wipe_system_command_line() noexcept {}
