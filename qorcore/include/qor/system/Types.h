// The integer types of the framework. Each has the same width and is the same C++ type on every platform, so that
// overloads and printf formats ("%llu" for uint64) work everywhere.
#pragma once

#include "qor/glue/compiler.h"

#include <cstddef>

// Each name gives the number of bits.
using int8 = signed char;
using uint8 = unsigned char;
using int16 = short;
using uint16 = unsigned short;
using int32 = int;
using uint32 = unsigned int;
using int64 = long long;
using uint64 = unsigned long long;

static_assert(sizeof(int16) == 2 && sizeof(int32) == 4 && sizeof(int64) == 8);
