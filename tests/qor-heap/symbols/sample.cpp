// Code with inlined functions, templates, lambdas and functions of C, for the tests of symbols.
#include <algorithm>
#include <cstdio>
#include <functional>
#include <map>
#include <string>
#include <vector>

#define VISIBLE __attribute__((visibility("default"), noinline))

namespace sample {

namespace {

// A name that only the table of symbols has, if there is no debug information.
__attribute__((noinline)) int hidden_function(int value) {
    std::printf("%d\n", value);
    return value * 3;
}

inline __attribute__((always_inline)) int innermost(int value) { return hidden_function(value) + 1; }

inline __attribute__((always_inline)) int middle(int value) { return innermost(value + 2) - 4; }

template <class VALUE>
VISIBLE VALUE largest(const std::vector<VALUE>& values) {
    return *std::max_element(values.begin(), values.end(), [](const VALUE& one, const VALUE& other) {
        std::puts("compare");
        return one < other;
    });
}

} // namespace

class __attribute__((visibility("default"))) shape {
public:
    virtual ~shape() = default;
    virtual double area(const std::string& unit) const;
};

double shape::area(const std::string& unit) const {
    std::map<std::string, double> known{{"m", 1.0}, {"km", 1e6}};
    return known[unit] * middle(static_cast<int>(unit.size()));
}

VISIBLE int all(int count) {
    const std::function<int(int)> twice = [](int value) { return 2 * middle(value); };
    std::vector<std::string> words(static_cast<std::size_t>(count), "word");
    std::sort(words.begin(), words.end(), std::greater<>());
    return twice(largest(std::vector<int>{1, 2, count})) + static_cast<int>(largest(words).size());
}

} // namespace sample

extern "C" VISIBLE int sample_entry(int count) {
    return static_cast<int>(sample::shape().area("km")) + sample::all(count);
}

#ifdef __ELF__
// Code that only has a label, without a size and without debug information.
asm(".pushsection .text\n"
    ".globl sample_label\n"
    "sample_label: nop\n"
    "nop\n"
    "ret\n"
    ".popsection\n");
#endif
