// Compares the memory routines with the best of all strategies, in one process and on the same memory.
//
//   simd_bench [--brief] [--only TEXT] [--all]
//
// Each row is one kind of work: an operation, a length, the state of the caches and the alignment. All strategies and
// our routine run it in turn, in many short rounds; a figure is the ratio of two medians, and more than 1 means that we
// are faster. A row misses its target if that happens in three runs out of three; then the exit code is 1. --only picks
// the rows whose name contains TEXT; --all prints the figures of each strategy. A brief run never fails because of a
// figure, since other programs influence it too much.
#include "simd/simd.h"
#include "memory/lengths.h"
#include "memory/strategies.h"
#include "qor/qor.h"

#include <algorithm>
#include <barrier>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <gnu/libc-version.h>
#include <iterator>
#include <random>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace {

using strategies::strategy;
using seconds = std::chrono::duration<double>;
using watch = std::chrono::steady_clock;

constexpr uint64 kib = 1024, mib = 1024 * kib;
// Much larger than any cache, so that no cold round finds memory in a cache that an earlier round touched.
constexpr uint64 pool = 512 * mib;

constexpr uint64 lengths[] = {1,         8,   16,      32,      64,       100,      128,      256,
                              512,       kib, 2 * kib, 4 * kib, 8 * kib,  16 * kib, 32 * kib, 64 * kib,
                              256 * kib, mib, 2 * mib, 4 * mib, 16 * mib, 32 * mib, 64 * mib, 256 * mib};

constexpr double of_best = 0.90, of_library = 0.95, of_library_mixed = 1.0, of_best_threads = 0.95;

bool s_brief, s_all;
std::string_view s_only;
int s_rows, s_missed;
char* s_to;
char* s_from;

// ---- what is compared

enum class operation { copy, zero };
constexpr const char* operation_names[] = {"copy", "zero"};

// Our routines and those of the C library are called as a client calls them: such a call takes as long as the work on a
// few bytes. A strategy stands for the fastest code there could be, and its call costs the least.
constexpr struct {
    static void copy(char* to, const char* from, uint64 length) { simd_memcpy_safe(to, from, length); }
    static void fill(char* to, char, uint64 length) { simd_zero(to, length); }
} our_calls;
constexpr struct {
    static void copy(char* to, const char* from, uint64 length) { std::memcpy(to, from, length); }
    static void fill(char* to, char value, uint64 length) { std::memset(to, value, length); }
} library_calls;
constexpr strategy ours{"ours", our_calls.copy, our_calls.fill, 0};

template <class USE>
auto call_by(const strategy& by, const USE& use) {
    if (by.copy == ours.copy)
        return use(our_calls);
    if (by.name == strategies::library)
        return use(library_calls);
    return use(by);
}

struct work {
    operation what;
    uint64 length;
    bool cold, read;
    uint64 to_offset, from_offset;

    std::string name() const;
};

std::string size_name(uint64 size) {
    return size >= mib   ? std::to_string(size / mib) + " MiB"
           : size >= kib ? std::to_string(size / kib) + " KiB"
                         : std::to_string(size) + " B";
}

std::string work::name() const {
    std::string text = operation_names[static_cast<int>(what)];
    text.append(" ").append(size_name(length)).append(cold ? " cold" : " hot");
    if (read)
        text.append(" then read");
    if (to_offset != 0 || from_offset != 0)
        text.append(" to ").append(std::to_string(to_offset)).append(" from ").append(std::to_string(from_offset));
    return text;
}

// Reads memory as a caller would that goes on to work with it.
uint64 sum(const char* from, uint64 length) {
    uint64 total[4] = {};
    uint64 at = 0;
    for (; at + 32 <= length; at += 32)
        for (uint64 k = 0; k < 4; ++k) {
            uint64 word;
            std::memcpy(&word, from + at + k * 8, sizeof word);
            total[k] += word;
        }
    for (; at < length; ++at)
        total[0] += static_cast<unsigned char>(from[at]);
    return total[0] + total[1] + total[2] + total[3];
}
volatile uint64 s_sum;

// ---- how it is compared

double median(std::vector<double> values) {
    std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2), values.end());
    return values[values.size() / 2];
}

// Does the work `count` times, from `place` on, each time `stride` bytes further. Some routines take only two
// nanoseconds, so there is nothing else in the loops.
template <class CALLS>
[[gnu::noinline]] void repeat(const CALLS& by, const work& what, uint64 place, uint64 stride, uint64 count) {
    char* to = s_to + place + what.to_offset;
    const char* from = s_from + place + what.from_offset;
    const uint64 length = what.length;
    const auto each_time = [&](const auto& call) {
        for (; count != 0; --count, to += stride, from += stride)
            call();
    };
    const auto copy = [&] { by.copy(to, from, length); };
    const auto fill = [&] { by.fill(to, 0, length); };
    const auto then_read = [&](const auto& call) {
        return [&] {
            call();
            s_sum = sum(to, length);
        };
    };
    if (what.what == operation::copy)
        what.read ? each_time(then_read(copy)) : each_time(copy);
    else
        what.read ? each_time(then_read(fill)) : each_time(fill);
}

// The seconds of one call, in a round. A cold round goes on through the pool; `place` keeps its position. A hot one
// begins with both blocks in the caches, as far as they fit: what ran before must not decide. A large cache keeps data
// only after several passes over them.
template <class CALLS>
double round_of(const CALLS& by, const work& what, uint64& place) {
    const uint64 calls = std::clamp<uint64>((s_brief ? mib / 4 : 8 * mib) / what.length, 1, s_brief ? 500 : 20000);
    const uint64 stride = what.cold ? (what.length + 2 * 4 * kib) / (4 * kib) * (4 * kib) : 0;
    if (!what.cold) {
        place = 0;
        for (uint64 pass = 0; pass < 4 && what.length <= 64 * mib; ++pass)
            std::memset(s_to, 1, what.length + 64);
        s_sum = sum(s_from, what.length + 64) + sum(s_to, what.length + 64);
        repeat(by, what, place, stride, 1);
    }
    const auto begin = watch::now();
    for (uint64 left = calls; left != 0;) {
        const uint64 count = what.cold ? std::min(left, (pool - place) / stride) : left;
        repeat(by, what, place, stride, count);
        left -= count;
        place += count * stride;
        if (place + stride > pool)
            place = 0;
    }
    return seconds(watch::now() - begin).count() / static_cast<double>(calls);
}

struct figures {
    double ours, library, best; // seconds of one call
    const char* best_name;
    std::vector<double> each; // beside the list of peers
};

// All run in turn, and take turns in running first.
template <class ROUND>
figures race(const std::vector<strategy>& peers, const strategy& own, int rounds, const ROUND& round) {
    std::vector<std::vector<double>> times(peers.size() + 1);
    for (int i = 0; i < rounds; ++i)
        for (std::size_t k = 0; k < times.size(); ++k) {
            const std::size_t turn = (k + static_cast<std::size_t>(i)) % times.size();
            times[turn].push_back(round(turn == peers.size() ? own : peers[turn]));
        }
    figures found{};
    for (const auto& one : times)
        found.each.push_back(median(one));
    found.ours = found.each.back();
    found.each.pop_back();
    found.library = found.each.front();
    const auto best = std::ranges::min_element(found.each);
    found.best = *best;
    found.best_name = peers[static_cast<std::size_t>(best - found.each.begin())].name;
    return found;
}

template <class ROUND>
void row(const std::string& name, uint64 bytes, const std::vector<strategy>& peers, const strategy& own,
         double best_limit, double library_limit, const ROUND& round) {
    if (name.find(s_only) == std::string::npos)
        return;
    ++s_rows;
    const int rounds = s_brief ? 3 : 15;
    figures found{};
    bool missed = true;
    int runs = 0;
    while (missed && runs < (s_brief ? 1 : 3)) {
        found = race(peers, own, rounds, round);
        missed = found.best / found.ours < best_limit || found.library / found.ours < library_limit;
        ++runs;
    }
    s_missed += missed;
    const auto speed = [&](double time) { return static_cast<double>(bytes) / time * 1e-9; };
    std::printf("%-42s %7.1f GB/s  of best %5.2f  of C library %5.2f  best: %s%s\n", name.c_str(), speed(found.ours),
                found.best / found.ours, found.library / found.ours, found.best_name, missed ? "  MISSED" : "");
    if (s_all)
        for (std::size_t k = 0; k < peers.size(); ++k)
            std::printf("    %-38s %7.1f GB/s\n", peers[k].name, speed(found.each[k]));
    std::fflush(stdout);
}

std::vector<strategy> peers_for(operation what, uint64 length) {
    std::vector<strategy> fit;
    for (const strategy& one : strategies::available())
        if (one.from <= length && (what == operation::copy ? one.copy != nullptr : one.fill != nullptr))
            fit.push_back(one);
    return fit;
}

// A strategy that does less work than the others would set a false mark.
void check(const strategy& by) {
    constexpr uint64 most = 80 * kib;
    std::vector<char> from(most), to(most), expected(most);
    std::mt19937 random(1);
    std::ranges::generate(from, [&] { return static_cast<char>(random()); });
    for (const uint64 length : {1, 31, 64, 200, 4095, 20000, 70000})
        for (const uint64 offset : {0, 1, 63}) {
            if (length < by.from)
                continue;
            const auto differs = [&](auto&& work, auto&& reference) {
                std::ranges::fill(to, 'a'), std::ranges::fill(expected, 'a');
                work(to.data() + offset), reference(expected.data() + offset);
                return to != expected;
            };
            if ((by.copy != nullptr && differs([&](char* at) { by.copy(at, from.data() + 5, length); },
                                               [&](char* at) { std::copy_n(from.data() + 5, length, at); })) ||
                (by.fill != nullptr &&
                 differs([&](char* at) { by.fill(at, 7, length); }, [&](char* at) { std::fill_n(at, length, 7); }))) {
                std::fprintf(stderr, "%s: wrong result for %llu bytes at %llu\n", by.name, length, offset);
                std::exit(2);
            }
        }
}

// ---- the rows

void compare(const work& what) {
    uint64 place = 0;
    row(what.name(), what.length, peers_for(what.what, what.length), ours, of_best, of_library,
        [&](const strategy& by) {
            return call_by(by, [&](const auto& calls) { return round_of(calls, what, place); });
        });
}

void compare_lengths(operation what) {
    struct offsets {
        uint64 to, from;
    };
    for (const bool cold : {false, true})
        for (const bool read : {false, true})
            for (const offsets at : {offsets{0, 0}, offsets{3, 1}})
                for (const uint64 length : lengths)
                    if (!s_brief || length == 64 || length == 64 * kib || length == 64 * mib)
                        compare({what, length, cold, read, at.to, what == operation::copy ? at.from : 0});
}

// Copies of up to 256 bytes in random order, their lengths distributed as in real programs: the processor cannot know
// which branch comes next.
void compare_mixed(const recorded_lengths& program) {
    constexpr uint64 count = 1 << 16;
    std::vector<uint16_t> order;
    std::mt19937 random(1);
    std::discrete_distribution<uint16_t> draw(std::begin(program.counts), std::end(program.counts));
    std::generate_n(std::back_inserter(order), count, [&] { return draw(random); });
    std::vector<strategy> peers{strategies::available().front()};
    uint64 bytes = 0;
    for (const uint16_t length : order)
        bytes += length;
    const auto calls = [&](const auto& by) {
        const auto begin = watch::now();
        uint64 at = 0;
        for (const uint16_t length : order) {
            by.copy(s_to + at, s_from + 8 * kib - at, length);
            at = (at + length) % (4 * kib);
        }
        return seconds(watch::now() - begin).count();
    };
    const auto round = [&](const strategy& by) { return call_by(by, calls); };
    row(std::string("copy up to 256 bytes as ").append(program.name), bytes, peers, ours, 0, of_library_mixed, round);
}

// Both threads begin together, each with a half of the pool; the time is that of the later one.
void compare_threads(operation what) {
    constexpr uint64 length = 64 * mib;
    const auto round = [&](const strategy& by) {
        std::barrier start(3);
        const auto run = [&](uint64 place) {
            start.arrive_and_wait();
            repeat(by, work{what, length, true, false, 0, 0}, place, 0, 1);
        };
        std::thread one(run, 0), other(run, pool / 2);
        start.arrive_and_wait();
        const auto begin = watch::now();
        one.join(), other.join();
        return seconds(watch::now() - begin).count();
    };
    row(std::string(operation_names[static_cast<int>(what)]).append(" 64 MiB in two threads"), 2 * length,
        peers_for(what, length), ours, of_best_threads, 0, round);
}

std::string processor() {
    std::ifstream file("/proc/cpuinfo");
    for (std::string text; std::getline(file, text);)
        if (text.starts_with("model name"))
            return text.substr(text.find(':') + 2);
    return "unknown processor";
}

char* allocate() {
    void* const block = qor_do_malloc(2 * mib, pool + 2 * mib, true, "bench/simd", __LINE__);
    std::memset(block, 1, pool + 2 * mib);
    return static_cast<char*>(block);
}

} // namespace

int main(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        const std::string_view word = argv[i];
        if (word == "--brief") {
            s_brief = true;
        } else if (word == "--all") {
            s_all = true;
        } else if (word == "--only" && i + 1 < argc) {
            s_only = argv[++i];
        } else {
            std::fputs("usage: simd_bench [--brief] [--only TEXT] [--all]\n", stderr);
            return 2;
        }
    }
    const qor::simd::cache_sizes caches = qor::simd::read_cache_sizes();
    std::printf("%s; caches %llu KiB, %llu KiB, %llu KiB; C library %s\n", processor().c_str(), caches.first_data / kib,
                caches.second / kib, caches.third / kib, gnu_get_libc_version());
    std::ranges::for_each(strategies::available(), check);
    s_to = allocate();
    s_from = allocate();
    compare_lengths(operation::copy);
    compare_lengths(operation::zero);
    for (const recorded_lengths& program : recorded)
        compare_mixed(program);
    compare_threads(operation::copy);
    compare_threads(operation::zero);
    std::printf("%d rows, %d missed\n", s_rows, s_missed);
    return s_brief || s_missed == 0 ? 0 : 1;
}
