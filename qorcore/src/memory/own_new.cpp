// operator new of libqor alone: nothing else sees it, since the library exports one symbol and brings its C++ run-time.
//
// The operations behind the table have no way to pass an exception on to their callers, and most of them none to fail. So
// where there is no memory for the library's own use it does not throw: the process ends in words, wherever that was.
// Blocks for a caller come from the tracked allocator, which tells its caller.
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

void operator delete(void* block) noexcept { std::free(block); }
void operator delete(void* block, std::size_t) noexcept { std::free(block); }
void operator delete(void* block, const std::nothrow_t&) noexcept { std::free(block); }
