#include "demangled.h"

#include <cstdlib>
#include <cstring>
#include <cxxabi.h>
#include <memory>

namespace qor::heap {

namespace {

// The demangler takes a multiple of it from the stack. Names of real programs stay below a tenth.
constexpr std::size_t longest_mangled = 64 * 1024;

struct release {
    void operator()(char* text) const noexcept { std::free(text); }
};

} // namespace

std::string demangled(const char* name) {
    // Other words are types to the demangler: the function `f` is not `float`.
    if (name[0] != '_' || std::strlen(name) > longest_mangled)
        return name;
    const std::unique_ptr<char, release> result(abi::__cxa_demangle(name, nullptr, nullptr, nullptr));
    return result != nullptr ? result.get() : name;
}

} // namespace qor::heap
