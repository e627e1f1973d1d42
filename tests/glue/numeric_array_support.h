// The ten typed arrays, for tests that are the same for all of them.
#pragma once

#include "support/recording_table.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <type_traits>
#include <vector>

template <class ARRAY>
using element_of = std::remove_pointer_t<decltype(std::declval<ARRAY&>().GetDataPtr())>;

// The classes by name, and their element types' names in the contract.
template <class ARRAY>
struct named;
#define NAMED(name, type)                                                                                              \
    template <>                                                                                                        \
    struct named<name> {                                                                                               \
        static constexpr char text[] = #name;                                                                          \
        using element = type;                                                                                          \
    }
NAMED(uint8_Array, unsigned char);
NAMED(int8_Array, signed char);
NAMED(uint16_Array, unsigned short);
NAMED(int16_Array, short);
NAMED(uint32_Array, unsigned int);
NAMED(int32_Array, int);
NAMED(uint64_Array, unsigned long long);
NAMED(int64_Array, long long);
NAMED(float_Array, float);
NAMED(double_Array, double);
#undef NAMED

using numeric_arrays = testing::Types<uint8_Array, int8_Array, uint16_Array, int16_Array, uint32_Array, int32_Array,
                                      uint64_Array, int64_Array, float_Array, double_Array>;

// Names the tests after the classes.
struct class_names {
    template <class ARRAY>
    static std::string GetName(int) {
        return named<ARRAY>::text;
    }
};

template <class ARRAY>
std::vector<element_of<ARRAY>> content(const ARRAY& array) {
    return {array.GetDataPtr(), array.GetDataPtr() + array.GetCount()};
}

template <class ARRAY>
void fill(ARRAY& array, std::initializer_list<int> values) {
    array.Empty();
    for (const int value : values)
        array.Append(static_cast<element_of<ARRAY>>(value));
}

template <class ARRAY>
std::vector<element_of<ARRAY>> list(std::initializer_list<int> values) {
    std::vector<element_of<ARRAY>> result;
    for (const int value : values)
        result.push_back(static_cast<element_of<ARRAY>>(value));
    return result;
}

// The assertion text for a range that ends after the last element.
template <class ARRAY>
std::string cut_range() {
    return qor::test::assertion("index + count <= m_vec.count",
                                std::string("void ") + named<ARRAY>::text + "::RemoveAt(uint32, uint32)",
                                "qorcore/include/qor/system/mt/NumericArray_impl", 102);
}

// Critical values: the limits of the type, and those of a 32-bit comparison result.
template <class ELEMENT>
std::vector<ELEMENT> corners() {
    std::vector<ELEMENT> result;
    if constexpr (std::is_floating_point_v<ELEMENT>) {
        using limits = std::numeric_limits<ELEMENT>;
        for (const double value :
             {0.0,          0.25,         0.5,          0.9999,       1.0,          1.5,          2.0,
              1e6,          16777215.5,   1073741824.0, 2147483520.0, 2147483646.5, 2147483647.0, 2147483647.5,
              2147483648.0, 2147483648.5, 2147483649.0, 4294967296.0, 9.3e18,       1e30}) {
            result.push_back(static_cast<ELEMENT>(value));
            result.push_back(static_cast<ELEMENT>(-value));
        }
        for (const ELEMENT value : {limits::denorm_min(), limits::min(), limits::max(), limits::infinity()}) {
            result.push_back(value);
            result.push_back(-value);
        }
        result.push_back(limits::quiet_NaN());
    } else {
        for (const uint64 base : {0ull, 1ull << 7, 1ull << 8, 1ull << 15, 1ull << 16, 3000000000ull, 1ull << 31,
                                  1ull << 32, (1ull << 32) + (1ull << 31), 1ull << 33, 1ull << 63, ~0ull - 1})
            for (uint64 offset = 0; offset < 5; ++offset)
                result.push_back(static_cast<ELEMENT>(base + offset - 2));
    }
    return result;
}
