#include "debug/surviving_memory.h"

// Unmaps the file first, because Windows does not delete a mapped file.
void qor::debug::surviving_memory::close() noexcept {
    if (!is_open())
        return;
    leave();
    remove_file();
}

void qor::debug::surviving_memory::leave() noexcept {
    if (is_open())
        unmap();
    m_bytes = nullptr;
}
