// For the string tests: framework strings and arrays converted to types of the C++ library, which serve as the model.
#pragma once

#include "qor/qor.h"

#include <random>
#include <string>
#include <vector>

inline std::string bytes(const qorString& text) { return {text.Text(), text.Length()}; }

inline qorString made_of(const std::string& text) { return {text.data(), static_cast<int32>(text.size())}; }

inline std::vector<std::string> list(const qorStringArray& array) {
    std::vector<std::string> elements;
    for (uint32 i = 0; i < array.GetCount(); ++i)
        elements.push_back(bytes(array.m_data.elements[i]));
    return elements;
}

// Checks the invariants that hold between any two operations.
inline bool is_sound(const qorString& text) {
    const qorString::data& data = text.m_data;
    return data.text == nullptr ? data.length == 0 && data.alloc == 0
                                : data.length < data.alloc && data.text[data.length] == '\0';
}

// Seeded, so that a failure can be reproduced.
class generator {
public:
    explicit generator(uint32 seed) : m_engine(seed) {}

    // Returns 0 to limit - 1.
    uint32 below(uint32 limit) { return static_cast<uint32>(m_engine() % limit); }

    std::string from(const std::string& alphabet, uint32 length_limit) {
        std::string text(below(length_limit), '\0');
        for (char& c : text)
            c = alphabet[below(static_cast<uint32>(alphabet.size()))];
        return text;
    }

private:
    std::mt19937 m_engine;
};
