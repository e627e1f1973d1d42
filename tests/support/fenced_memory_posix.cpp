#include "support/fenced_memory.h"

#include <new>
#include <sys/mman.h>
#include <unistd.h>

namespace {

std::size_t page() { return static_cast<std::size_t>(sysconf(_SC_PAGESIZE)); }

} // namespace

qor::test::fenced_memory::fenced_memory(std::size_t size) {
    const std::size_t whole = (size + page() - 1) / page() * page();
    void* const pages = mmap(nullptr, whole + 2 * page(), PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (pages == MAP_FAILED)
        throw std::bad_alloc();
    m_begin = static_cast<unsigned char*>(pages) + page();
    m_end = m_begin + whole;
    if (mprotect(m_begin, whole, PROT_READ | PROT_WRITE) != 0)
        throw std::bad_alloc();
}

qor::test::fenced_memory::~fenced_memory() {
    munmap(m_begin - page(), static_cast<std::size_t>(m_end - m_begin) + 2 * page());
}
