// Writes the heap log of an invented program, with addresses from the real allocator.
//
//   heap_log_generator --lines N --live M --seed S [--memcheck FILE] OUT
//
// N is the number of allocation and release lines in OUT. The number of live blocks rises to M in the first part of the
// log and then stays near it. --memcheck also writes the framework's own log of the same run. One seed gives one
// sequence of events, but the addresses depend on the allocator. Prints one line for the bench: the lines written and
// the highest number of live blocks.

#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace {

constexpr int kCallSites = 3000;
constexpr double kSmallSizeMedian = 48;
constexpr double kSmallSizeSpread = 1.0;
constexpr int kMediumPercent = 5;
constexpr int kLargePerMille = 1;
constexpr int kReallocPercent = 6;
constexpr int kTypedPercent = 30;
constexpr int kShortLifePercent = 70;
// A short-lived block is one of the last few allocated when it is released.
constexpr size_t kShortLifeReach = 32;

struct Options {
    uint64_t lines = 1'000'000;
    uint64_t live = 200'000;
    uint64_t seed = 1;
    const char* memcheck = nullptr;
    const char* out = nullptr;
};

struct CallSite {
    std::string caller;
    std::string source;
    std::string type_name;
};

[[noreturn]] void fail(const char* what) {
    std::perror(what);
    std::exit(1);
}

// A log file that ends the program if it cannot be written.
class Log {
public:
    explicit Log(const char* path) : m_path(path), m_file(std::fopen(path, "wb")) {
        if (m_file == nullptr)
            fail(path);
    }
    Log(const Log&) = delete;
    Log& operator=(const Log&) = delete;
    ~Log() {
        if (std::ferror(m_file) != 0 || std::fclose(m_file) != 0)
            fail(m_path);
    }

    template <class... Args>
    void write(const char* format, Args... args) {
        std::fprintf(m_file, format, args...);
    }

private:
    const char* m_path;
    std::FILE* m_file;
};

// The invented program: its live blocks and its next action.
class Program {
public:
    Program(const Options& options, Log& mtrace, Log* memcheck)
        : m_options(options), m_mtrace(mtrace), m_memcheck(memcheck), m_random(options.seed) {
        m_blocks.reserve(options.live + 1);
        for (int i = 0; i < kCallSites; ++i)
            m_sites.push_back(make_site(i));
    }

    void run() {
        while (m_lines < m_options.lines) {
            if (!m_blocks.empty() && percent(kReallocPercent) && m_lines + 2 <= m_options.lines)
                reallocate();
            else if (percent(release_percent()) && !m_blocks.empty())
                release();
            else
                allocate();
        }
    }

    uint64_t lines() const { return m_lines; }
    uint64_t peak() const { return m_peak; }

private:
    uint64_t below(uint64_t limit) { return m_random() % limit; }
    bool percent(int chance) { return below(100) < static_cast<uint64_t>(chance); }

    // The number rises by about two blocks in five lines until it reaches the wanted one, then varies around it.
    int release_percent() const { return m_blocks.size() < m_options.live ? 30 : 70; }

    CallSite make_site(int number) {
        char text[160];
        // In real logs, a third of the lines name a function, the others only an address.
        if (number % 3 == 0)
            std::snprintf(text, sizeof text,
                          "/usr/lib/x86_64-linux-gnu/libapp%d.so.1:(_ZN3app6module%d6createEv+0x%x)[0x%x]", number % 17,
                          number, 8 + number % 500, 0x10000 + number * 52);
        else
            std::snprintf(text, sizeof text, "/usr/bin/app:[0x%x]", 0x4000 + number * 40);
        CallSite site{text, {}, {}};
        std::snprintf(text, sizeof text, "src/module%d/part%d %d", number % 40, number % 300, 1 + number * 7 % 2000);
        site.source = text;
        std::snprintf(text, sizeof text, "app::module%d::Node%d", number % 40, number % 500);
        site.type_name = text;
        return site;
    }

    // Few call sites make most allocations.
    const CallSite& pick_site() {
        const double x = static_cast<double>(below(1'000'000)) / 1e6;
        return m_sites[static_cast<size_t>(x * x * x * kCallSites)];
    }

    size_t pick_size() {
        if (below(1000) < static_cast<uint64_t>(kLargePerMille))
            return 128 * 1024 + below(1024 * 1024);
        if (percent(kMediumPercent))
            return 1024 + below(8 * 1024);
        const double size = m_small_size(m_random);
        return size < 1 ? 1 : size > 2048 ? 2048 : static_cast<size_t>(size);
    }

    size_t pick_block() {
        const size_t count = m_blocks.size();
        if (percent(kShortLifePercent))
            return count - 1 - below(count < kShortLifeReach ? count : kShortLifeReach);
        return below(count);
    }

    void allocated(void* block, size_t size, char code, const CallSite& site) {
        // In the format of the C library of Linux, on every system.
        const auto address = reinterpret_cast<uintptr_t>(block);
        m_mtrace.write("@ %s %c %#zx %#zx\n", site.caller.c_str(), code, address, size);
        if (m_memcheck != nullptr) {
            m_memcheck->write("A %zx %zu 0 %s\n", address, size, site.source.c_str());
            if (percent(kTypedPercent))
                m_memcheck->write("T %zx %s\n", address, site.type_name.c_str());
        }
        ++m_lines;
    }

    void released(const void* block, char code, const CallSite& site) {
        const auto address = reinterpret_cast<uintptr_t>(block);
        m_mtrace.write("@ %s %c %#zx\n", site.caller.c_str(), code, address);
        if (m_memcheck != nullptr)
            m_memcheck->write("F %zx 0\n", address);
        ++m_lines;
    }

    void allocate() {
        const size_t size = pick_size();
        void* block = std::malloc(size);
        if (block == nullptr)
            fail("malloc");
        m_blocks.push_back(block);
        if (m_blocks.size() > m_peak)
            m_peak = m_blocks.size();
        allocated(block, size, '+', pick_site());
    }

    void release() {
        const size_t index = pick_block();
        released(m_blocks[index], '-', pick_site());
        std::free(m_blocks[index]);
        m_blocks[index] = m_blocks.back();
        m_blocks.pop_back();
    }

    void reallocate() {
        const size_t index = pick_block();
        const size_t size = pick_size();
        const CallSite& site = pick_site();
        released(m_blocks[index], '<', site);
        void* block = std::realloc(m_blocks[index], size);
        if (block == nullptr)
            fail("realloc");
        m_blocks[index] = block;
        allocated(block, size, '>', site);
    }

    const Options& m_options;
    Log& m_mtrace;
    Log* m_memcheck;
    std::mt19937_64 m_random;
    std::lognormal_distribution<double> m_small_size{std::log(kSmallSizeMedian), kSmallSizeSpread};
    std::vector<CallSite> m_sites;
    std::vector<void*> m_blocks;
    uint64_t m_lines = 0;
    uint64_t m_peak = 0;
};

bool parse_number(const char* text, uint64_t& number) {
    const char* end = text + std::strlen(text);
    const auto [stop, error] = std::from_chars(text, end, number);
    return error == std::errc() && stop == end && number > 0;
}

bool parse(int argc, char** argv, Options& options) {
    for (int i = 1; i < argc; ++i) {
        const std::string_view word = argv[i];
        if (!word.starts_with("--")) {
            if (options.out != nullptr)
                return false;
            options.out = argv[i];
            continue;
        }
        if (++i == argc)
            return false;
        bool good = true;
        if (word == "--lines")
            good = parse_number(argv[i], options.lines);
        else if (word == "--live")
            good = parse_number(argv[i], options.live);
        else if (word == "--seed")
            good = parse_number(argv[i], options.seed);
        else if (word == "--memcheck")
            options.memcheck = argv[i];
        else
            good = false;
        if (!good)
            return false;
    }
    return options.out != nullptr;
}

void write_logs(const Options& options, Log* memcheck) {
    Log mtrace(options.out);
    mtrace.write("= %s\n", "Start");
    Program program(options, mtrace, memcheck);
    program.run();
    mtrace.write("= %s\n", "End");
    std::printf("lines %llu peak_live %llu\n", static_cast<unsigned long long>(program.lines()),
                static_cast<unsigned long long>(program.peak()));
}

} // namespace

int main(int argc, char** argv) {
    Options options;
    if (!parse(argc, argv, options)) {
        std::fprintf(stderr, "usage: %s --lines N --live M --seed S [--memcheck FILE] OUT\n", argv[0]);
        return 2;
    }
    if (options.memcheck != nullptr) {
        Log memcheck(options.memcheck);
        write_logs(options, &memcheck);
    } else {
        write_logs(options, nullptr);
    }
    return 0;
}
