// The grammar of SCRAM's messages, the plain way: a message is cut at its commas first.
#pragma once

#include <cstdlib>
#include <string>
#include <vector>

inline void require(bool agreed) {
    if (!agreed)
        std::abort();
}

inline std::vector<std::string> fields_of(const std::string& message) {
    std::vector<std::string> fields(1);
    for (const char c : message)
        if (c == ',')
            fields.emplace_back();
        else
            fields.back() += c;
    return fields;
}

inline bool is_field(const std::string& field, char name) {
    return field.size() >= 2 && field[0] == name && field[1] == '=' && field.find('\0') == field.npos;
}

// From this field on nothing but extensions that need not be understood.
inline bool are_extensions(const std::vector<std::string>& fields, std::size_t from) {
    for (std::size_t i = from; i < fields.size(); ++i) {
        const char name = fields[i].empty() ? '\0' : fields[i][0];
        const bool letter = (name >= 'a' && name <= 'z') || (name >= 'A' && name <= 'Z');
        if (!letter || std::string("anmrcsipve").find(name) != std::string::npos || !is_field(fields[i], name) ||
            fields[i].size() < 3)
            return false;
    }
    return true;
}

inline bool is_plain_nonce(const std::string& text) {
    bool plain = !text.empty();
    for (const char c : text)
        plain = plain && c >= '!' && c <= '~' && c != ',';
    return plain;
}

// Puts one text in the place of each other.
inline std::string replaced(std::string text, const std::string& what, const std::string& by) {
    for (std::size_t at = 0; (at = text.find(what, at)) != text.npos; at += by.size())
        text.replace(at, what.size(), by);
    return text;
}
