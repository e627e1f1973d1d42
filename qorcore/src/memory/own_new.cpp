// operator new for libqor only. No other code sees it, because the library exports one symbol and contains its own C++
// run-time. In a build that shares the run-time this file is left out: the run-time's code and the library's would free
// each other's blocks.
//
// The operations behind the table cannot pass an exception to their callers, and most of them cannot fail. So if there
// is no memory for the library's own use, operator new does not throw: the process ends with a message. Blocks for a
// caller come from the tracked allocator, which reports the failure to the caller.
//
// There is no version for over-aligned types, because the library creates no such object on the heap.
//
// Builds with a sanitizer keep the sanitizer's operators (CMakeLists.txt).
#include "memory/allocator.h"

#include <cstdlib>
#include <new>

void* operator new(std::size_t size) {
    void* const block = std::malloc(size != 0 ? size : 1);
    if (block == nullptr) [[unlikely]]
        qorEndOutOfMemory();
    return block;
}

// Callers of this version can continue without memory, like a stable sort.
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return std::malloc(size != 0 ? size : 1); }

// The run-time's version would call the operator above, which does not return without memory.
void* operator new[](std::size_t size, const std::nothrow_t& tag) noexcept { return operator new(size, tag); }

void operator delete(void* block) noexcept { std::free(block); }
void operator delete(void* block, std::size_t) noexcept { std::free(block); }
void operator delete(void* block, const std::nothrow_t&) noexcept { std::free(block); }
