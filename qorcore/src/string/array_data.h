// Inside the library: the storage of string arrays.
//
// All slots of the storage hold constructed strings. The strings behind the count are empty but keep the storage of
// earlier elements. So an array that is filled again and again, for example with the words of each line of a file,
// stops allocating after a few rounds.
#pragma once

#include "qor/qor.h"

#include <cstdint>

namespace qor::string {

// Removes the elements. Their storage is kept for the next ones.
inline void restart(qorStringArray& array) noexcept {
    for (uint32 i = 0; i < array.m_data.count; ++i)
        array.m_data.elements[i].Empty();
    array.m_data.count = 0;
}

// Whether the string is an element of the array, which filling the array would overwrite.
inline bool is_element(const qorStringArray& array, const qorString& text) noexcept {
    const auto address = reinterpret_cast<std::uintptr_t>(&text);
    const auto begin = reinterpret_cast<std::uintptr_t>(array.m_data.elements);
    return address - begin < array.m_data.alloc * sizeof(qorString);
}

} // namespace qor::string
