// operator new of libqor alone: nothing else sees it, since the library exports one symbol and brings its C++ run-time
// (where it does not, this file is left out: the run-time's own code and the library's would free each other's blocks).
//
// The operations behind the table have no way to pass an exception on to their callers, and most of them none to fail.
// So where there is no memory for the library's own use it does not throw: the process ends in words, wherever that
// was. Blocks for a caller come from the tracked allocator, which tells its caller.
//
// Types that are aligned to more than malloc grants have none: the library makes no such object on the heap.
//
// Builds with a sanitizer keep the sanitizer's (CMakeLists.txt).
#include "memory/allocator.h"

#include <cstdlib>
#include <new>

void* operator new(std::size_t size) {
    void* const block = std::malloc(size != 0 ? size : 1);
    if (block == nullptr) [[unlikely]]
        qorEndOutOfMemory();
    return block;
}

// Whatever asks in this way can go on without, as a stable sort does.
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return std::malloc(size != 0 ? size : 1); }

// The run-time's own would ask the first one, and not come back.
void* operator new[](std::size_t size, const std::nothrow_t& tag) noexcept { return operator new(size, tag); }

void operator delete(void* block) noexcept { std::free(block); }
void operator delete(void* block, std::size_t) noexcept { std::free(block); }
void operator delete(void* block, const std::nothrow_t&) noexcept { std::free(block); }
