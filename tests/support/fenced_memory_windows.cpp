#include "support/fenced_memory.h"

#include <new>
#include <windows.h>

namespace {

constexpr std::size_t page = 4096;

} // namespace

qor::test::fenced_memory::fenced_memory(std::size_t size) {
    const std::size_t whole = (size + page - 1) / page * page;
    void* const pages = VirtualAlloc(nullptr, whole + 2 * page, MEM_RESERVE, PAGE_NOACCESS);
    if (pages == nullptr)
        throw std::bad_alloc();
    m_begin = static_cast<unsigned char*>(pages) + page;
    m_end = m_begin + whole;
    if (VirtualAlloc(m_begin, whole, MEM_COMMIT, PAGE_READWRITE) == nullptr)
        throw std::bad_alloc();
}

qor::test::fenced_memory::~fenced_memory() { VirtualFree(m_begin - page, 0, MEM_RELEASE); }
