// Programs that apply operations, one for each line of standard input: the operation's name and its words between
// blanks, each in hexadecimal digits behind an 'x', so that they may be any bytes. The answer is a line that begins
// with "ok" or "error NUMBER"; texts in it are in the same form.
#pragma once

#include "qor/qor.h"

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace line_driver {

// The name of the operation is the first one.
using words = std::vector<std::string>;

// Returns whether it succeeded, otherwise with a last error. What it adds to the answer begins with a blank.
using operation = bool (*)(const words& given, std::string& answer);

inline std::string hexadecimal(std::string_view text) {
    std::string out = "x";
    for (const char byte : text) {
        constexpr char digits[] = "0123456789abcdef";
        out += digits[static_cast<unsigned char>(byte) >> 4];
        out += digits[static_cast<unsigned char>(byte) & 15];
    }
    return out;
}

inline std::string plain(std::string_view text) {
    std::string out;
    for (std::size_t i = 1; i + 1 < text.size(); i += 2)
        out += static_cast<char>(std::stoi(std::string(text.substr(i, 2)), nullptr, 16));
    return out;
}

// Applies operations until the input ends. Words that a line lacks up to `at_least` are empty. Returns an exit code.
inline int apply_lines(const std::map<std::string, operation>& operations, std::size_t at_least = 1) {
    for (std::string line; std::getline(std::cin, line);) {
        std::istringstream in(line);
        words given;
        for (std::string word; in >> word;)
            given.push_back(plain(word));
        given.resize(std::max(at_least, given.size()));
        const auto found = operations.find(given[0]);
        if (found == operations.end()) {
            std::cerr << "unknown operation: " << line << '\n';
            return 2;
        }
        qorClearLastError();
        std::string answer;
        if (found->second(given, answer)) {
            std::cout << "ok" << answer << std::endl;
        } else {
            qorString text;
            const uint32 number = qorGetLastError(text);
            std::cout << "error " << number << ' ' << hexadecimal(text) << std::endl;
        }
    }
    return 0;
}

} // namespace line_driver
