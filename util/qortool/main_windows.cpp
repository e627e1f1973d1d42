// The wide entry. A plain main gets its arguments through the system's code page, which lacks many characters.
#include "entry.h"

#include "qor/qor.h"

#include <string>
#include <vector>

namespace {

int run_with_utf8(int argc, wchar_t** argv) {
    std::vector<std::string> words;
    for (int i = 0; i < argc; ++i)
        words.push_back(qor::glue::to_utf8(argv[i]));
    std::vector<char*> pointers;
    for (std::string& word : words)
        pointers.push_back(word.data());
    return run_tool(argc, pointers.data());
}

} // namespace

int wmain(int argc, wchar_t** argv) {
    return qor::or_end([=] { return run_with_utf8(argc, argv); });
}
