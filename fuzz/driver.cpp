// Runs one fuzz target over a corpus and over mutations of it, with no more than the compiler at hand:
//
//     fuzz_TARGET CORPUS_DIR... [--runs=N] [--seconds=T] [--seed=S]
//
// Every file of the folders is one input. After them come N mutations (default: none), or as many as T
// seconds allow; where both are given, whichever ends first. The same seed gives the same mutations. A long
// run tells its count every minute, so that one which is ended early has a figure, too. On a crash the input
// is left in the file "crash-input" of the current folder, to be replayed from a folder of its own.
#include "crash_input.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <random>
#include <string>
#include <string_view>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

// Read by the sanitizers, where the build has them: a finding of theirs shall end the process by SIGABRT as
// well.
#define QOR_SANITIZER_OPTIONS(name)                                                                                    \
    extern "C" [[gnu::visibility("default")]] const char* name() { return "abort_on_error=1"; }
QOR_SANITIZER_OPTIONS(__asan_default_options)
QOR_SANITIZER_OPTIONS(__tsan_default_options)
QOR_SANITIZER_OPTIONS(__ubsan_default_options)
#undef QOR_SANITIZER_OPTIONS

namespace {

constexpr std::size_t max_size = 1 << 16;

std::string current_input;

void run(std::string input) {
    current_input = std::move(input);
    // A copy of just its size, so that a step beyond its end is seen.
    const std::vector<std::uint8_t> bytes(current_input.begin(), current_input.end());
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
}

class mutator {
    std::size_t below(std::size_t limit) { return static_cast<std::size_t>(m_random() % limit); }
    char byte() { return static_cast<char>(m_random()); }
    template <class CONTAINER>
    const auto& pick(const CONTAINER& from) {
        return from[below(std::size(from))];
    }

public:
    mutator(std::vector<std::string> corpus, std::uint64_t seed) : m_corpus(std::move(corpus)), m_random(seed) {
        for (const std::string& input : m_corpus)
            collect_words(input);
    }

    std::string next() {
        std::string input = pick(m_corpus);
        for (std::size_t steps = 1 + below(8); steps != 0; --steps)
            mutate(input);
        input.resize(std::min(input.size(), max_size));
        return input;
    }

private:
    void collect_words(std::string_view input) {
        constexpr std::string_view blanks = " \t\r\n";
        while (!input.empty()) {
            const std::size_t end = std::min(input.find_first_of(blanks), input.size());
            if (end != 0 && end <= 32)
                m_words.emplace_back(input.substr(0, end));
            input.remove_prefix(std::min(end + 1, input.size()));
        }
        m_words.emplace_back("\n");
    }

    void mutate(std::string& input) {
        static constexpr std::string_view numbers[] = {"0",
                                                       "1",
                                                       "-1",
                                                       "+1",
                                                       "00",
                                                       "08",
                                                       "0x",
                                                       "0x7fffffff",
                                                       "127",
                                                       "128",
                                                       "255",
                                                       "256",
                                                       "32767",
                                                       "65535",
                                                       "65536",
                                                       "2147483647",
                                                       "2147483648",
                                                       "4294967295",
                                                       "4294967296",
                                                       "9223372036854775807",
                                                       "18446744073709551615",
                                                       "18446744073709551616",
                                                       "1e9",
                                                       "99999999999999999999999999"};
        static constexpr char bytes[] = {'\0',   '\x01', '\t',   '\n',   '\r',   ' ',    '\x7f', '\x80',
                                         '\xbf', '\xc0', '\xe0', '\xed', '\xf0', '\xf4', '\xfe', '\xff'};

        const std::size_t at = below(input.size() + 1);
        const std::size_t length = std::min(below(below(4) != 0 ? 8 : input.size() + 1), input.size() - at);
        switch (below(9)) {
        case 0: // flips a bit
            if (at < input.size())
                input[at] = static_cast<char>(input[at] ^ (1 << below(8)));
            break;
        case 1:
            if (at < input.size())
                input[at] = byte();
            break;
        case 2:
            input.insert(at, 1, below(2) != 0 ? pick(bytes) : byte());
            break;
        case 3:
            input.erase(at, length);
            break;
        case 4: // repeats a piece
            input.insert(at, input.substr(at, length));
            break;
        case 5: // moves a piece
            if (const std::string piece = input.substr(at, length); !piece.empty()) {
                input.erase(at, length);
                input.insert(below(input.size() + 1), piece);
            }
            break;
        case 6: // the rest of another input
            if (const std::string& other = pick(m_corpus); !other.empty())
                input.replace(at, std::string::npos, other, below(other.size()));
            break;
        case 7:
            input.replace(at, below(2) != 0 ? length : 0, pick(numbers));
            break;
        case 8:
            input.replace(at, below(2) != 0 ? length : 0, pick(m_words));
            break;
        }
    }

    std::vector<std::string> m_corpus;
    std::vector<std::string> m_words;
    std::mt19937_64 m_random;
};

// Sorted, so that a seed means the same on every file system.
std::vector<std::string> read_corpus(const std::vector<std::string>& folders) {
    std::vector<std::filesystem::path> paths;
    for (const std::string& folder : folders)
        for (const auto& entry : std::filesystem::directory_iterator(folder))
            if (entry.is_regular_file())
                paths.push_back(entry.path());
    std::sort(paths.begin(), paths.end());
    std::vector<std::string> inputs;
    for (const std::filesystem::path& path : paths) {
        std::ifstream file(path, std::ios::binary);
        inputs.emplace_back(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
        if (!file)
            throw std::filesystem::filesystem_error("cannot read", path, std::make_error_code(std::errc::io_error));
    }
    return inputs;
}

struct settings {
    std::vector<std::string> folders;
    std::uint64_t runs = 0;
    std::uint64_t seconds = 0;
    std::uint64_t seed = 1;
};

bool read_number(std::string_view word, std::string_view option, std::uint64_t& value) {
    if (!word.starts_with(option))
        return false;
    const char* const end = word.data() + word.size();
    const auto [behind, error] = std::from_chars(word.data() + option.size(), end, value);
    return error == std::errc() && behind == end;
}

bool read_words(int count, char** words, settings& wanted) {
    for (int i = 1; i < count; ++i) {
        const std::string_view word = words[i];
        if (!word.starts_with("--"))
            wanted.folders.emplace_back(word);
        else if (!read_number(word, "--runs=", wanted.runs) && !read_number(word, "--seconds=", wanted.seconds) &&
                 !read_number(word, "--seed=", wanted.seed))
            return false;
    }
    return !wanted.folders.empty();
}

// How many inputs were run.
std::uint64_t run_all(const settings& wanted) {
    const std::vector<std::string> corpus = read_corpus(wanted.folders);
    for (const std::string& input : corpus)
        run(input);
    if (corpus.empty())
        return 0;

    using clock = std::chrono::steady_clock;
    const bool timed = wanted.seconds != 0;
    const clock::time_point end = clock::now() + std::chrono::seconds(wanted.seconds);
    const std::uint64_t runs = timed && wanted.runs == 0 ? std::numeric_limits<std::uint64_t>::max() : wanted.runs;
    mutator mutations(corpus, wanted.seed);
    std::uint64_t done = 0;
    clock::time_point now = clock::now();
    clock::time_point told = now;
    while (done < runs && (!timed || now < end)) {
        run(mutations.next());
        ++done;
        now = clock::now();
        if (now - told < std::chrono::minutes(1))
            continue;
        told = now;
        std::printf("%llu inputs so far\n", static_cast<unsigned long long>(corpus.size() + done));
        std::fflush(stdout);
    }
    return corpus.size() + done;
}

} // namespace

int main(int argc, char** argv) {
    settings wanted;
    if (!read_words(argc, argv, wanted)) {
        std::fprintf(stderr, "usage: %s CORPUS_DIR... [--runs=N] [--seconds=T] [--seed=S]\n", argv[0]);
        return 2;
    }
    leave_input_on_crash(current_input);
    try {
        const std::uint64_t inputs = run_all(wanted);
        std::printf("%llu inputs, %s\n", static_cast<unsigned long long>(inputs),
                    inputs != 0 ? "no finding" : "which shows nothing");
        return inputs != 0 ? 0 : 1;
    } catch (const std::filesystem::filesystem_error& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
}
