// A program that the tests start: child_peer WHAT [WORD]...
#include "qor/qor.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <thread>
#if defined(_WIN32)
#include <fcntl.h>
#include <io.h>
#endif

namespace {

void write_hexadecimal(const qorString& text) {
    for (const char each : std::string_view(text))
        std::printf("%02x", static_cast<unsigned char>(each));
    std::printf("\n");
}

int copy() {
    static char block[65536];
    for (std::size_t got; (got = std::fread(block, 1, sizeof block, stdin)) != 0;)
        if (std::fwrite(block, 1, got, stdout) != got)
            return 1;
    return 0;
}

// Writes to both streams in turn, so that a reader of one alone would wait for ever.
int write_both(unsigned long count) {
    static char block[4096];
    for (unsigned long i = 0; i < count; ++i) {
        std::fwrite(block, 1, sizeof block, stdout);
        std::fflush(stdout);
        std::fwrite(block, 1, sizeof block, stderr);
        std::fflush(stderr);
    }
    return 0;
}

int run(const qorStringArray& words) {
    const std::string_view what = words.GetCount() > 1 ? words[1] : "";
    const char* const word = words.GetCount() > 2 ? words[2] : "";
    if (what == "arguments") {
        for (const qorString& each : words)
            write_hexadecimal(each);
        return 0;
    }
    if (what == "variable") {
        const char* const value = std::getenv(word);
        std::printf("%s\n", value != nullptr ? value : "(none)");
        return 0;
    }
    if (what == "copy")
        return copy();
    if (what == "both")
        return write_both(std::strtoul(word, nullptr, 10));
    if (what == "say") {
        std::printf("out %s\n", word);
        std::fprintf(stderr, "err %s\n", word);
        return 0;
    }
    if (what == "exit")
        return std::atoi(word);
    if (what == "sleep")
        for (;;)
            std::this_thread::sleep_for(std::chrono::hours(1));
    return 99;
}

} // namespace

#if defined(_WIN32)
// The C runtime has split the command line. A program that asks the system for it must get the same words.
int wmain(int argc, wchar_t** argv) {
    for (std::FILE* const each : {stdin, stdout, stderr})
        _setmode(_fileno(each), _O_BINARY);
    qorStringArray words;
    for (int i = 0; i < argc; ++i)
        words.Append(qor::glue::to_utf8(argv[i]));
    qorStringArray of_system;
    qorwinSetupProcessArgs(of_system);
    return std::equal(words.begin() + 1, words.end(), of_system.begin(), of_system.end()) ? run(words) : 98;
}
#else
int main(int argc, char** argv) {
    qorStringArray words;
    words.SetFromArgVec(argc, argv);
    return run(words);
}
#endif
