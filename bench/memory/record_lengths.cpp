// Preloaded into a program, counts the lengths of up to 256 bytes that it gives to memcpy, and adds a row for lengths.h
// to the file that MEMCPY_LENGTHS names:
//
//   g++ -O2 -shared -fPIC -fno-builtin -o /tmp/record_lengths.so bench/memory/record_lengths.cpp
//   MEMCPY_LENGTHS=/tmp/lengths LD_PRELOAD=/tmp/record_lengths.so python3 -c 'import json'
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <iterator>

namespace {

std::atomic<unsigned long> s_counts[257];

[[gnu::destructor]] void write_row() {
    const char* const path = std::getenv("MEMCPY_LENGTHS");
    std::FILE* const file = path != nullptr ? std::fopen(path, "a") : nullptr;
    if (file == nullptr)
        return;
    for (const auto& one : s_counts)
        std::fprintf(file, "%lu, ", one.load());
    std::fputc('\n', file);
    std::fclose(file);
}

} // namespace

// The dynamic loader and the C library call this before anything is ready, so it needs nothing of them.
extern "C" void* memcpy(void* to, const void* from, std::size_t length) noexcept {
    if (length < std::size(s_counts))
        s_counts[length].fetch_add(1, std::memory_order_relaxed);
    void* at = to;
    asm volatile("rep movsb" : "+D"(at), "+S"(from), "+c"(length) : : "memory");
    return to;
}
