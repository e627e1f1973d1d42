// The events that the replay reports to its sink; the width of sizes; the rules of the join; several replays at once.
#include "heap/replay/replay.h"
#include "support/temp_folder.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <thread>
#include <tuple>
#include <vector>

namespace {

using namespace qor::heap;
using namespace qor::test;

// Records all events.
template <class RULES>
class recorder {
public:
    using size = typename RULES::size;
    using engine = replay<recorder, RULES>;
    using mtrace_line = log_lines::mtrace_line<size>;
    using memcheck_line = log_lines::memcheck_line<size>;

    std::vector<std::string> events;
    std::unique_ptr<engine> analyser = std::make_unique<engine>(*this, 0);

    recorder() = default;
    recorder(const recorder&) = delete;
    recorder& operator=(const recorder&) = delete;
    ~recorder() { analyser->free_all(); }

    void allocation(const block<size>& of) { tell("allocation", of); }
    void release(const block<size>& of) { tell("release", of); }
    void origin_changed(const block<size>& of, uint32 /*before*/) { tell("origin", of); }
    void bad_free(const mtrace_line& rec) { tell("bad free", rec.address); }
    void bad_free(const memcheck_line& rec) { tell("bad free of the framework", rec.address); }
    void warning(qor::heap::warning what, std::string_view text) {
        events.push_back("warning " + std::to_string(static_cast<int>(what)) + " [" + std::string(text) + "]");
    }
    void progress(uint32 count) { tell("progress", count); }
    void before_read() {}
    void before_wait() {}
    void leftover(const memcheck_line& rec) {
        events.push_back("leftover " + std::string(1, rec.code) + " " + std::to_string(rec.address) + " " +
                         std::to_string(rec.size) + " " + std::string(rec.file) + " " + std::string(rec.type_name));
    }
    void end_of_log(uint32 leftovers) { tell("end of log, leftovers", leftovers); }
    void live_block(const block<size>& of) { tell("live", of); }
    void end() { events.emplace_back("end"); }

    // Replays one log, or two joined ones, and returns all events.
    const std::vector<std::string>& run(const std::string& mtrace, const std::string& memcheck) {
        events.clear();
        if (!mtrace.empty()) {
            EXPECT_TRUE(analyser->open_mtrace(mtrace.c_str()));
        }
        if (!memcheck.empty()) {
            EXPECT_TRUE(analyser->open_memcheck(memcheck.c_str()));
        }
        analyser->run();
        analyser->walk_live_blocks(*this);
        return events;
    }

private:
    void tell(const char* what, uint64 number) { events.push_back(std::string(what) + " " + std::to_string(number)); }

    void tell(const char* what, const block<size>& of) {
        const origin_table& origins = analyser->origins();
        const origin_table::origin& from = origins.get(of.origin);
        events.push_back(std::string(what) + " " + std::to_string(of.address) + " " + std::to_string(of.size) + " " +
                         std::string(origins.printed(from.caller)) + " " + std::string(origins.printed(from.file)) +
                         ":" + std::to_string(from.line) + " " + std::string(origins.printed(from.type_name)));
    }
};

using strings = std::vector<std::string>;

class replays : public testing::Test {
protected:
    temp_folder folder;
};

TEST_F(replays, tell_an_mtrace_log) {
    recorder<fixed_report_rules> sink;
    EXPECT_EQ(
        sink.run(
            folder.file("log", "@ app + 0x10 0x8\n@ app - 0x10\n@ app - 0x10\n@ app\n@ lib x 0x20 0x1\n@ z + 0 1\n"),
            ""),
        (strings{"allocation 16 8 app :0 ", "release 16 8 app :0 ", "bad free 16", "warning 0 []", "warning 1 [x]",
                 "allocation 32 1 lib :0 ", "end of log, leftovers 0", "live 32 1 lib :0 ", "end"}));
}

TEST_F(replays, tell_an_allocation_log) {
    recorder<fixed_report_rules> sink;
    EXPECT_EQ(sink.run("", folder.file("log", "A 10 8 0 a.cpp 7\nT 10 Widget\nF 10 0\nF 10 0\nT 10 Widget\nZ 1\nZ\n")),
              (strings{"allocation 16 8  a.cpp:7 ", "origin 16 8  a.cpp:7 Widget", "release 16 8  a.cpp:7 Widget",
                       "bad free of the framework 16", "warning 4 []", "warning 3 [Z]", "warning 2 []",
                       "end of log, leftovers 0", "end"}));
}

TEST_F(replays, tell_progress) {
    std::string mtrace, memcheck;
    for (int i = 0; i < 41; ++i)
        mtrace += "@ app - 0\n@ app + 0 1\n";
    for (int i = 0; i < 100; ++i)
        memcheck += "F 0 0\n";
    const auto progress_of = [](const strings& events) {
        strings found;
        for (const std::string& each : events)
            if (each.starts_with("progress"))
                found.push_back(each);
        return found;
    };
    recorder<fixed_report_rules> one, other;
    EXPECT_EQ(progress_of(one.run(folder.file("mtrace", mtrace), "")),
              (strings{"progress 20", "progress 40", "progress 60", "progress 80"}));
    EXPECT_EQ(progress_of(other.run("", folder.file("memcheck", memcheck))), (strings{"progress 100"}));
}

// Sizes as the C library writes them, in another form, and as the framework writes them.
template <class RULES>
strings sizes_of(temp_folder& folder) {
    recorder<RULES> one, other;
    strings all = one.run(folder.file("mtrace", "@ app + 0x10 0x100000001\n@ app  + 0x20 8589934594\n"
                                                "@ app + 0x30 0xffffffffffffffff\n@ app + 0x40 0x10000000000000000\n"),
                          "");
    const strings more = other.run("", folder.file("memcheck", "A 10 4294967299 0 a 1\nA\t20 0x100000004 0\n"));
    all.insert(all.end(), more.begin(), more.end());
    strings sizes;
    for (const std::string& each : all)
        if (each.starts_with("live"))
            sizes.push_back(
                each.substr(each.find(' ', 5) + 1, each.find(' ', each.find(' ', 5) + 1) - each.find(' ', 5) - 1));
    return sizes;
}

TEST_F(replays, sizes_have_the_width_of_the_rules) {
    EXPECT_EQ(sizes_of<fixed_report_rules>(folder), (strings{"1", "2", "4294967295", "4294967295", "3", "4"}));
    EXPECT_EQ(sizes_of<exact_rules>(folder), (strings{"4294967297", "8589934594", "18446744073709551615",
                                                      "18446744073709551615", "4294967299", "4294967300"}));
}

constexpr char reused_mtrace[] = "@ one + 0x10 0x8\n@ one - 0x10\n@ plain + 0x10 0x9\n@ plain - 0x10\n"
                                 "@ two + 0x10 0x8\n";
constexpr char reused_memcheck[] = "A 10 8 0 a 1\nT 10 First\nF 10 0\nA 10 8 0 b 2\nT 10 Second\n";

TEST_F(replays, a_greedy_join_takes_all_records_of_an_address) {
    recorder<fixed_report_rules> sink;
    EXPECT_EQ(sink.run(folder.file("mtrace", reused_mtrace), folder.file("memcheck", reused_memcheck)),
              (strings{"allocation 16 8 one b:2 Second", "release 16 8 one b:2 Second", "allocation 16 9 plain :0 ",
                       "release 16 9 plain :0 ", "allocation 16 8 two :0 ", "end of log, leftovers 0",
                       "live 16 8 two :0 ", "end"}));
}

TEST_F(replays, a_join_in_time_takes_the_records_of_one_block) {
    recorder<exact_rules> sink;
    EXPECT_EQ(sink.run(folder.file("mtrace", reused_mtrace), folder.file("memcheck", reused_memcheck)),
              (strings{"allocation 16 8 one a:1 First", "release 16 8 one a:1 First", "allocation 16 9 plain :0 ",
                       "release 16 9 plain :0 ", "allocation 16 8 two b:2 Second", "end of log, leftovers 0",
                       "live 16 8 two b:2 Second", "end"}));
}

TEST_F(replays, a_join_in_time_tells_what_is_left) {
    recorder<exact_rules> sink;
    EXPECT_EQ(
        sink.run(folder.file("mtrace", "@ app + 0x20 0x1\n"),
                 folder.file("memcheck", "T 20 Early\nA 30 4 0 c 3\nF 30 0\nA 20 2 0 d 4\nF 50 0\nA 60 5 3 e 5\n")),
        (strings{"leftover T 32 0  Early", "allocation 32 1 app :0 ", "end of log, leftovers 2", "leftover A 48 4 c ",
                 "leftover A 32 2 d ", "live 32 1 app :0 ", "end"}));
}

// There are more blocks without an mtrace record than the look-ahead holds, with blocks of the mtrace log between them.
TEST_F(replays, a_join_in_time_passes_by_what_nothing_takes) {
    constexpr int count = 5000;
    std::string mtrace, memcheck;
    for (int i = 0; i < count; ++i) {
        char line[100];
        std::snprintf(line, sizeof line, "@ app + 0x%x 0x8\n", 0x1000 + 16 * i);
        mtrace += line;
        std::snprintf(line, sizeof line, "A %x 8 0 a %d\nA %x 8 0 other 1\n", 0x1000 + 16 * i, i, 0x1000008 + 16 * i);
        memcheck += line;
    }
    recorder<exact_rules> sink;
    int joined = 0, left = 0;
    for (const std::string& each : sink.run(folder.file("mtrace", mtrace), folder.file("memcheck", memcheck))) {
        joined += each.starts_with("live") && each.find(" a:" + std::to_string(joined) + " ") != std::string::npos;
        left += each.starts_with("leftover A");
    }
    EXPECT_EQ(joined, count);
    EXPECT_EQ(left, count);
}

// Logs of an invented program, and the origins of its blocks.
struct made_run {
    // Few addresses, so that they are reused often; sizes of the framework's blocks are even.
    explicit made_run(unsigned seed) {
        std::mt19937 random(seed);
        std::map<unsigned, bool> live; // by address: whether the framework allocated the block
        strings lines;
        for (int i = 0; i < 20'000; ++i) {
            const unsigned address = 0x1000 + 16 * static_cast<unsigned>(random() % 300);
            char line[200];
            if (const auto found = live.find(address); found != live.end()) {
                std::snprintf(line, sizeof line, "@ app:[0x%x] - 0x%x\n", i % 50, address);
                mtrace += line;
                std::snprintf(line, sizeof line, "F %x 0\n", address);
                if (found->second)
                    lines.emplace_back(line);
                expected.erase(address);
                live.erase(found);
                continue;
            }
            const bool is_framework = random() % 3 != 0;
            const unsigned size = 2 * static_cast<unsigned>(random() % 100) + (is_framework ? 0 : 1);
            std::snprintf(line, sizeof line, "@ app:[0x%x] + 0x%x 0x%x\n", i % 50, address, size);
            mtrace += line;
            live.emplace(address, is_framework);
            std::snprintf(line, sizeof line, "A %x %u 0 file%d %d\n", address, size, i % 7, i);
            if (is_framework)
                lines.emplace_back(line);
            const bool has_type = is_framework && random() % 2 != 0;
            if (has_type) {
                std::snprintf(line + 100, 100, "T %x type%d\n", address, i % 11);
                lines.emplace_back(line + 100);
            }
            expected[address] = "live " + std::to_string(address) + " " + std::to_string(size) + " app:[0x" +
                                hexadecimal(i % 50) + "] " +
                                (is_framework ? "file" + std::to_string(i % 7) + ":" + std::to_string(i) : ":0") + " " +
                                (has_type ? "type" + std::to_string(i % 11) : "");
        }
        // Lines of other threads may come between, as long as the lines of one address stay in order.
        for (std::size_t i = 1; i < lines.size(); ++i)
            if (random() % 4 == 0 && address_of(lines[i]) != address_of(lines[i - 1]))
                std::swap(lines[i], lines[i - 1]);
        for (const std::string& each : lines)
            memcheck += each;
    }

    static std::string address_of(const std::string& line) { return line.substr(2, line.find(' ', 2) - 2); }
    static std::string hexadecimal(int number) {
        char text[16];
        std::snprintf(text, sizeof text, "%x", number);
        return text;
    }

    std::string mtrace, memcheck;
    std::map<unsigned, std::string> expected; // events of the live blocks, by address
};

TEST_F(replays, a_join_in_time_finds_the_truth) {
    for (unsigned seed = 1; seed <= 3; ++seed) {
        const made_run made(seed);
        recorder<exact_rules> sink;
        std::map<std::string, int> found, expected;
        for (const std::string& each :
             sink.run(folder.file("mtrace", made.mtrace), folder.file("memcheck", made.memcheck)))
            if (each.starts_with("live"))
                ++found[each];
        for (const auto& [address, event] : made.expected)
            ++expected[event];
        EXPECT_EQ(found, expected) << seed;
    }
}

// Replays of two kinds, with threads that read ahead: each gives the same result as alone.
TEST_F(replays, many_run_at_once) {
    constexpr unsigned count = 4;
    strings mtrace, memcheck;
    for (unsigned i = 0; i < count; ++i) {
        const made_run made(10 + i);
        mtrace.push_back(folder.file("mtrace" + std::to_string(i), made.mtrace));
        memcheck.push_back(folder.file("memcheck" + std::to_string(i), made.memcheck));
    }
    const auto run = [&](unsigned i) {
        if (i % 2 == 0) {
            recorder<fixed_report_rules> sink;
            return sink.run(mtrace[i], i == 0 ? memcheck[i] : "");
        }
        recorder<exact_rules> sink;
        return sink.run(i == 1 ? mtrace[i] : "", memcheck[i]);
    };
    std::vector<strings> alone, at_once(count);
    for (unsigned i = 0; i < count; ++i)
        alone.push_back(run(i));
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < count; ++i)
        threads.emplace_back([&, i] { at_once[i] = run(i); });
    for (std::thread& each : threads)
        each.join();
    for (unsigned i = 0; i < count; ++i) {
        EXPECT_GT(alone[i].size(), 10'000u);
        EXPECT_TRUE(at_once[i] == alone[i]) << i;
    }
}

TEST_F(replays, begin_anew_once_freed) {
    const made_run made(3);
    const std::string mtrace = folder.file("mtrace", made.mtrace);
    const std::string memcheck = folder.file("memcheck", made.memcheck);
    recorder<exact_rules> sink;
    const strings first = sink.run(mtrace, memcheck);
    for (int round = 0; round < 2; ++round) {
        sink.analyser->free_all();
        sink.events.clear();
        sink.analyser->walk_live_blocks(sink);
        EXPECT_EQ(sink.events, (strings{"end"}));
        EXPECT_TRUE(sink.run(mtrace, memcheck) == first);
    }
    // The allocation log alone, without the earlier mtrace log.
    sink.analyser->free_all();
    recorder<exact_rules> other;
    EXPECT_TRUE(sink.run("", memcheck) == other.run("", memcheck));
}

} // namespace
