// Compiled for MOVDIR64B, which stores 64 bytes past the caches at once. Check the processor's features before you call
// anything here.
#include "memory/loops.h"

#include <cstring>
#include <immintrin.h>

namespace {

void direct_copy(char* to, const char* from, uint64 length) {
    const uint64 head = to_next_line(to);
    std::memcpy(to, from, line);
    for (uint64 at = head; at + line <= length; at += line)
        _movdir64b(to + at, from + at);
    std::memcpy(to + length - line, from + length - line, line);
    _mm_sfence();
}

void direct_fill(char* to, char value, uint64 length) {
    alignas(line) char all[line];
    std::memset(all, value, line);
    const uint64 head = to_next_line(to);
    std::memcpy(to, all, line);
    for (uint64 at = head; at + line <= length; at += line)
        _movdir64b(to + at, all);
    std::memcpy(to + length - line, all, line);
    _mm_sfence();
}

} // namespace

void strategies::add_movdir64b(std::vector<strategy>& all) {
    all.push_back({"movdir64b", direct_copy, direct_fill, page});
}
