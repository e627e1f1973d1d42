#include "memory/strategies.h"

#include <cstring>

#if defined(__x86_64__)
#include <cpuid.h>
#endif

namespace {

// Hidden from the compiler, which would otherwise replace some of these calls by its own code.
void* (*volatile library_copy)(void*, const void*, std::size_t) = std::memcpy;
void* (*volatile library_fill)(void*, int, std::size_t) = std::memset;

void copy_by_library(char* to, const char* from, uint64 length) { library_copy(to, from, length); }
void fill_by_library(char* to, char value, uint64 length) { library_fill(to, value, length); }

#if defined(__x86_64__)
void copy_string(char* to, const char* from, uint64 length) {
    asm volatile("rep movsb" : "+D"(to), "+S"(from), "+c"(length) : : "memory");
}

void fill_string(char* to, char value, uint64 length) {
    asm volatile("rep stosb" : "+D"(to), "+c"(length) : "a"(value) : "memory");
}

// Leaf 7, register ECX.
bool has_movdir64b() {
    unsigned a, b, c, d;
    return __get_cpuid_count(7, 0, &a, &b, &c, &d) && (c >> 28 & 1) != 0;
}
#endif

} // namespace

std::vector<strategies::strategy> strategies::available() {
    std::vector<strategy> all{{library, copy_by_library, fill_by_library, 0}};
#if defined(__x86_64__)
    all.push_back({"rep movsb", copy_string, nullptr, 1});
    all.push_back({"rep stosb", nullptr, fill_string, 1});
    add_sse2(all);
    if (__builtin_cpu_supports("avx2"))
        add_avx2(all);
    if (__builtin_cpu_supports("avx512f"))
        add_avx512(all);
    if (has_movdir64b())
        add_movdir64b(all);
#endif
    return all;
}
