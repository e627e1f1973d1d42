// The value types and their fields in order, for tests that are the same for all of them.
#pragma once

#include "qor/qor.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <tuple>
#include <utility>

inline auto fields(qorSize& of) { return std::tie(of.width, of.height); }
inline auto fields(qorPoint& of) { return std::tie(of.x, of.y); }
inline auto fields(qorRect& of) { return std::tie(of.left, of.top, of.right, of.bottom); }
inline auto fields(qorRational& of) { return std::tie(of.numerator, of.denominator); }
inline auto fields(qorTimecode& of) { return std::tie(of.hours, of.minutes, of.seconds, of.frames); }
inline auto fields(qorColour& of) { return std::tie(of.red, of.green, of.blue, of.alpha); }

template <class TYPE>
inline constexpr std::size_t field_count = std::tuple_size_v<decltype(fields(std::declval<TYPE&>()))>;

// Calls `action(field, index)` for each field.
template <class TYPE, class ACTION>
void for_each_field(TYPE& value, ACTION action) {
    std::size_t index = 0;
    std::apply([&](auto&... field) { (action(field, index++), ...); }, fields(value));
}

// Returns the number in the field with this index of `numbered`; no two fields share a byte value.
inline uint32 field_number(std::size_t index) { return 0xf1e2d3c4u - 0x04040404u * static_cast<uint32>(index); }

// Returns a value whose fields differ in every byte.
template <class TYPE>
TYPE numbered() {
    TYPE value;
    for_each_field(value, [](auto& field, std::size_t index) {
        field = static_cast<std::remove_reference_t<decltype(field)>>(field_number(index));
    });
    return value;
}

using value_types = testing::Types<qorSize, qorPoint, qorRect, qorRational, qorTimecode, qorColour>;
