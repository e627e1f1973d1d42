// Shared code of the printf tests.
#pragma once

#include "string_support.h"

#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdio>
#include <string>

// For formats that cause compiler warnings.
inline void print(qorString& text, const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    text.PrintV(format, arguments);
    va_end(arguments);
}

inline bool decimal_comma_is_in_force() {
    char text[16];
    std::snprintf(text, sizeof text, "%.1f", 0.5);
    return std::string(text) == "0,5";
}

inline void expect_results_of_the_c_locale() {
    ASSERT_TRUE(decimal_comma_is_in_force());
    qorString text;
    print(text, "%.2f %'d %g", 3.5, 1234567, 0.25);
    EXPECT_EQ(bytes(text), "3.50 1234567 0.25");
    text.Printf("%2000.1f", 0.5);
    EXPECT_EQ(bytes(text), std::string(1997, ' ') + "0.5");
    EXPECT_TRUE(decimal_comma_is_in_force()) << "the caller's locale is not touched";
}
