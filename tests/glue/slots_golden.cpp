// Protects slots.def from accidental changes. slots_golden EXPECTED compares the list with the stored one and prints
// each added or removed row; slots_golden --update EXPECTED stores the current list.
#include <cstdio>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>
#include <string>
#include <string_view>

namespace {

// Free numbers have one line each, so that taking one shows as a single change.
void free_range(std::ostream& out, unsigned first, unsigned count) {
    for (unsigned number = first; number < first + count; ++number)
        out << number << " free\n";
}

std::string listing() {
    std::ostringstream out;
#define QOR_SLOT(number, result, op, parameters, arguments)                                                            \
    out << number << " slot " << #op << ": " << #result << " " << #parameters << " " << #arguments << "\n";
#define QOR_RESERVED(number, op) out << number << " reserved " << #op << "\n";
#define QOR_FREE(first, count) free_range(out, first, count);
#include "qor/glue/slots.def"
#undef QOR_SLOT
#undef QOR_RESERVED
#undef QOR_FREE
    return out.str();
}

std::set<std::string> lines(const std::string& text) {
    std::istringstream in(text);
    std::set<std::string> result;
    for (std::string line; std::getline(in, line);)
        result.insert(line);
    return result;
}

void show_missing(const char* mark, const std::set<std::string>& from, const std::set<std::string>& in) {
    for (const std::string& line : from)
        if (!in.contains(line))
            std::printf("%s %s\n", mark, line.c_str());
}

} // namespace

int main(int argc, char** argv) {
    const bool update = argc == 3 && std::string_view(argv[1]) == "--update";
    if (argc != 2 && !update) {
        std::fputs("usage: slots_golden [--update] EXPECTED\n", stderr);
        return 2;
    }
    const char* const path = argv[argc - 1];
    const std::string actual = listing();
    if (update) {
        std::ofstream out(path, std::ios::binary);
        out << actual;
        return out.flush() ? 0 : 1;
    }
    std::ifstream in(path, std::ios::binary);
    const std::string expected{std::istreambuf_iterator<char>(in), {}};
    if (actual == expected)
        return 0;
    show_missing("-", lines(expected), lines(actual));
    show_missing("+", lines(actual), lines(expected));
    std::printf("slots.def is not the list in %s; if that is meant, run:\n%s --update %s\n", path, argv[0], path);
    return 1;
}
