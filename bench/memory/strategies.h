// The ways to copy and to fill memory that simd_bench compares the library's routines with.
#pragma once

#include "qor/system/Types.h"

#include <vector>

namespace strategies {

struct strategy {
    const char* name;
    // Any addresses that do not overlap, any length. Null: the strategy does not do this.
    void (*copy)(char* to, const char* from, uint64 length);
    void (*fill)(char* to, char value, uint64 length);
    uint64 from; // the shortest length for which it is worth a trial
};

inline constexpr const char* library = "C library";

// Those that this processor can run. The first is `library`.
std::vector<strategy> available();

// The parts of available(), each in a translation unit that is compiled for its instruction set.
void add_sse2(std::vector<strategy>& all);
void add_avx2(std::vector<strategy>& all);
void add_avx512(std::vector<strategy>& all);
void add_movdir64b(std::vector<strategy>& all);

} // namespace strategies
