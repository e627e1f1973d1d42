// All that compilers have each in their own way. No other public header names a compiler or uses what only one knows,
// which tests/glue/headers checks.
#pragma once

// Visual C++ tells the language in a macro of its own.
#if defined(_MSVC_LANG) ? _MSVC_LANG < 202002L : __cplusplus < 202002L
#error "The headers of qor need C++20: compile with -std=c++20 or later (Visual C++: /std:c++20)."
#endif

#include <string_view>

#if defined(_MSC_VER)

#if !defined(__clang__) && (!defined(_MSVC_TRADITIONAL) || _MSVC_TRADITIONAL)
#error "The headers of qor need the standard preprocessor of Visual C++: compile with /Zc:preprocessor."
#endif

// A function that is called seldom.
#define QOR_COLD __declspec(noinline)
// A variable or function of this module alone, and one that others find.
#define QOR_HIDDEN
#define QOR_EXPORTED __declspec(dllexport)
// A constant in a section of the file; Visual C++ wants to know each by name (module_description.h).
#pragma section("qor_mod", read)
#define QOR_IN_SECTION(name) __declspec(allocate(name))
// The signature of the function that it stands in.
#define QOR_SIGNATURE __FUNCSIG__
// Makes the compiler check the arguments of printf-style operations. Positions count from 1; in members `this` is
// first.
#define QOR_PRINTF(format_position, first_argument)

#else

#define QOR_COLD [[gnu::noinline, gnu::cold]]
#if defined(__ELF__)
#define QOR_HIDDEN [[gnu::visibility("hidden")]]
#define QOR_EXPORTED [[gnu::visibility("default")]]
#else
#define QOR_HIDDEN
#define QOR_EXPORTED [[gnu::dllexport]]
#endif
#define QOR_IN_SECTION(name) [[gnu::section(name)]]
#define QOR_SIGNATURE __PRETTY_FUNCTION__
#if defined(__MINGW32__)
#define QOR_PRINTF(format_position, first_argument) __attribute__((format(gnu_printf, format_position, first_argument)))
#else
#define QOR_PRINTF(format_position, first_argument) __attribute__((format(printf, format_position, first_argument)))
#endif

#endif

namespace qor::glue {

// Returns the TYPE of the signature of a template `type_name<TYPE>`: "… [with TYPE = int; …]" of g++, "… [TYPE = int]"
// of clang, "… type_name<int>(void)" of Visual C++, which says of some names what they name.
consteval std::string_view type_in_signature(std::string_view signature) {
    constexpr std::string_view of_type = "TYPE = ";
    if (const std::size_t at = signature.find(of_type); at != signature.npos) {
        const std::size_t begin = at + of_type.size();
        return signature.substr(begin, signature.find_first_of(";]", begin) - begin);
    }
    constexpr std::string_view of_function = "type_name<";
    const std::size_t begin = signature.find(of_function) + of_function.size();
    std::string_view type = signature.substr(begin, signature.rfind(">(") - begin);
    for (const std::string_view kind : {"class ", "struct ", "enum ", "union "})
        if (type.substr(0, kind.size()) == kind)
            type.remove_prefix(kind.size());
    return type;
}

} // namespace qor::glue
