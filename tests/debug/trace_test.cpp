#include "qor/qor.h"
#include "support/line_heads.h"
#include "support/platform.h"
#include "support/scenes.h"
#include "support/temp_folder.h"

#include <gtest/gtest.h>

#include <chrono>
#include <random>
#include <regex>
#include <thread>

namespace {

using qor::test::bodies;
using qor::test::ending;
using qor::test::play;
using qor::test::read_file;
using qor::test::temp_folder;
using qor::test::words;

bool is_on(uint32 code) { return qor::glue::debug_is_on(code); }

// Codes last as long as the process, so each test and each round uses new names.
std::string fresh_name(const std::string& text) {
    static int count = 0;
    return "t" + std::to_string(++count) + "." + text;
}

// Collects the trace of the code under test in a file of its own.
class trace : public testing::Test {
protected:
    trace() : m_path(m_folder / "trace") { EXPECT_TRUE(qorDebugAttachFile(m_path.c_str())); }
    ~trace() override {
        EXPECT_TRUE(qorDebugEnableCode("*", false));
        EXPECT_TRUE(qorDebugAttachFile(nullptr));
    }

    // Attaching the file again writes all pending lines.
    std::vector<std::string> lines() const {
        EXPECT_TRUE(qorDebugAttachFile(m_path.c_str()));
        return bodies(read_file(m_path));
    }

    const temp_folder m_folder;
    const std::string m_path;
};

// Follows the definition directly: a star matches nothing, or one byte and then the star again.
bool plainly_matches(const char* pattern, const char* name) {
    if (*pattern == '\0')
        return *name == '\0';
    if (*pattern == '*')
        return plainly_matches(pattern + 1, name) || (*name != '\0' && plainly_matches(pattern, name + 1));
    return *pattern == *name && plainly_matches(pattern + 1, name + 1);
}

} // namespace

TEST_F(trace, a_name_has_one_code) {
    const std::string name = fresh_name("name");
    const uint32 code = qorDebugAllocateCode(name.c_str());
    EXPECT_NE(code, 0u);
    EXPECT_EQ(qorDebugAllocateCode(std::string(name).c_str()), code);
    EXPECT_NE(qorDebugAllocateCode((name + ".").c_str()), code);
    EXPECT_NE(qorDebugAllocateCode(name.substr(1).c_str()), code);
    EXPECT_FALSE(is_on(code));
}

TEST_F(trace, codes_are_listed_in_the_order_of_their_birth) {
    const std::string first = fresh_name("first");
    const std::string second = fresh_name("a.second");
    qorDebugAllocateCode(first.c_str());
    qorDebugAllocateCode(second.c_str());
    qorDebugEnableCode(second.c_str(), true);
    qorStringArray all;
    all.Append("what was there before");
    qorDebugGetCodes(all);
    ASSERT_GE(all.GetCount(), 2u);
    EXPECT_EQ(all[all.GetCount() - 2], first);
    EXPECT_EQ(all[all.GetCount() - 1], second);
    qorStringArray on;
    qorDebugGetEnabledCodes(on);
    ASSERT_EQ(on.GetCount(), 1u);
    EXPECT_EQ(on[0], second);
}

TEST_F(trace, switching_by_name) {
    const std::string name = fresh_name("name");
    const uint32 code = qorDebugAllocateCode(name.c_str());
    const uint32 other = qorDebugAllocateCode((name + "x").c_str());
    EXPECT_TRUE(qorDebugEnableCode(name.c_str(), true));
    EXPECT_TRUE(is_on(code));
    EXPECT_FALSE(is_on(other));
    EXPECT_TRUE(qorDebugEnableCode(name.c_str(), false));
    EXPECT_FALSE(is_on(code));
}

TEST_F(trace, an_empty_pattern_is_refused) {
    for (const char* const pattern : {static_cast<const char*>(nullptr), ""}) {
        qorClearLastError();
        EXPECT_FALSE(qorDebugEnableCode(pattern, true));
        qorString text;
        EXPECT_EQ(qorGetLastError(text), qorError_invalid_argument);
    }
}

TEST_F(trace, patterns_match_as_they_are_defined) {
    std::mt19937 random(4711);
    const auto text = [&random](const char* alphabet, unsigned length) {
        std::string result;
        for (unsigned i = random() % (length + 1); i != 0; --i)
            result += alphabet[random() % std::strlen(alphabet)];
        return result;
    };
    std::map<std::string, uint32> codes;
    for (int i = 0; i < 150; ++i) {
        const std::string name = "ab" + text("ab.", 8);
        codes[name] = qorDebugAllocateCode(name.c_str());
    }
    int matched = 0;
    for (int round = 0; round < 3000; ++round) {
        const std::string pattern = text("ab.**", 9);
        if (pattern.empty())
            continue;
        qorDebugEnableCode("*", false);
        qorDebugEnableCode(pattern.c_str(), true);
        for (const auto& [name, code] : codes) {
            ASSERT_EQ(is_on(code), plainly_matches(pattern.c_str(), name.c_str())) << pattern << " on " << name;
            matched += is_on(code);
        }
    }
    EXPECT_GT(matched, 1000);
}

TEST_F(trace, later_codes_follow_the_last_rule_that_matches) {
    const std::string family = fresh_name("");
    qorDebugEnableCode((family + "*").c_str(), true);
    qorDebugEnableCode((family + "quiet.*").c_str(), false);
    qorDebugEnableCode((family + "quiet.but.this").c_str(), true);
    EXPECT_TRUE(is_on(qorDebugAllocateCode((family + "loud").c_str())));
    EXPECT_FALSE(is_on(qorDebugAllocateCode((family + "quiet.one").c_str())));
    EXPECT_TRUE(is_on(qorDebugAllocateCode((family + "quiet.but.this").c_str())));
    // An old rule that is set again becomes the last one.
    qorDebugEnableCode((family + "*").c_str(), true);
    EXPECT_TRUE(is_on(qorDebugAllocateCode((family + "quiet.two").c_str())));
    qorDebugEnableCode((family + "*").c_str(), false);
    EXPECT_FALSE(is_on(qorDebugAllocateCode((family + "loud.too").c_str())));
}

TEST_F(trace, a_code_that_is_off_writes_nothing) {
    const uint32 code = qorDebugAllocateCode(fresh_name("off").c_str());
    qorDebug(code, "nothing");
    qorSendDebugLiteral(code, "nothing");
    { const qorDebugSeq scope(code, "nothing"); }
    { const qorDebugSeq scope(code, "nothing %d", 1); }
    EXPECT_EQ(read_file(m_path), "");
}

TEST_F(trace, a_line_holds_time_process_thread_and_code) {
    const std::string name = fresh_name("line");
    const uint32 code = qorDebugAllocateCode(name.c_str());
    qorDebugEnableCode(name.c_str(), true);
    // The C library's time() is some milliseconds behind this clock.
    const auto before = std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now());
    qorDebug(code, "%s and %d", "text", 7);
    const auto after = std::chrono::system_clock::now();
    const std::string line = read_file(m_path);
    std::smatch match;
    const std::regex form(R"((\d{4})-(\d\d)-(\d\d)T(\d\d):(\d\d):(\d\d)\.\d{6}Z (\d+):(\d+) (.*)\n)");
    ASSERT_TRUE(std::regex_match(line, match, form)) << line;
    const auto number = [&match](std::size_t index) { return std::stoi(match[index]); };
    using namespace std::chrono;
    const sys_seconds written =
        sys_days(year(number(1)) / number(2) / number(3)) + hours(number(4)) + minutes(number(5)) + seconds(number(6));
    EXPECT_GE(written, before);
    EXPECT_LE(written, after);
    EXPECT_EQ(match[7], qor::test::process_id());
    EXPECT_EQ(match[8], qor::test::thread_id());
    EXPECT_EQ(match[9], name + " text and 7");
}

TEST_F(trace, texts_of_any_kind) {
    const std::string name = fresh_name("texts");
    const uint32 code = qorDebugAllocateCode(name.c_str());
    qorDebugEnableCode(name.c_str(), true);
    const std::string longest(300000, 'x');
    qorSendDebugLiteral(code, "%s is no format");
    qorSendDebugLiteral(code, "with its end\n");
    qorSendDebugLiteral(code, "");
    qorDebug(code, "%s", longest.c_str());
    qorDebug(code, "%s", "\xff");
    EXPECT_EQ(lines(), (words{name + " %s is no format", name + " with its end", name + " ", name + " " + longest,
                              name + " \xff"}));
}

TEST_F(trace, errno_and_the_last_error_are_left_alone) {
    QOR_NEEDS_FULL_DISK();
    const std::string name = fresh_name("errno");
    const uint32 code = qorDebugAllocateCode(name.c_str());
    qorDebugEnableCode(name.c_str(), true);
    ASSERT_TRUE(qorDebugAttachFile(qor::test::full_disk));
    qorClearLastError();
    errno = ENOENT;
    qorDebug(code, "%d", 1);
    EXPECT_EQ(errno, ENOENT);
    qorString text;
    EXPECT_EQ(qorGetLastError(text), 0u);
}

TEST_F(trace, a_file_is_continued) {
    const std::string name = fresh_name("file");
    const uint32 code = qorDebugAllocateCode(name.c_str());
    qorDebugEnableCode(name.c_str(), true);
    qorDebug(code, "one");
    const std::string other = m_folder / "other";
    EXPECT_TRUE(qorDebugAttachFile(other.c_str()));
    qorDebug(code, "two");
    EXPECT_TRUE(qorDebugAttachFile(m_path.c_str()));
    qorDebug(code, "three");
    EXPECT_EQ(lines(), (words{name + " one", name + " three"}));
    EXPECT_EQ(bodies(read_file(other)), words{name + " two"});
}

TEST_F(trace, a_file_that_cannot_be_written_is_an_error) {
    const std::string path = m_folder / "no/such/folder";
    EXPECT_FALSE(qorDebugAttachFile(path.c_str()));
    qorString text;
    EXPECT_EQ(qorGetLastError(text), qorError_cannot_write_file);
    EXPECT_NE(text.FindString(path.c_str()), -1) << text;
}

TEST_F(trace, scopes_with_plain_names) {
    const std::string name = fresh_name("scope");
    const uint32 code = qorDebugAllocateCode(name.c_str());
    qorDebugEnableCode(name.c_str(), true);
    {
        const qorDebugSeq outer(code, "Outer");
        const qorDebugSeq inner(code, "Inner %d");
    }
    EXPECT_EQ(lines(), (words{name + " >>ENTER>> Outer()", name + " >>ENTER>> Inner %d()",
                              name + " <<LEAVE<< Inner %d()", name + " <<LEAVE<< Outer()"}));
}

TEST_F(trace, scopes_with_formatted_names) {
    const std::string name = fresh_name("scope");
    const uint32 code = qorDebugAllocateCode(name.c_str());
    qorDebugEnableCode(name.c_str(), true);
    std::string part = "part";
    {
        const qorDebugSeq scope(code, "%s %d", part.c_str(), 7);
        part = "gone";
    }
    EXPECT_EQ(lines(), (words{name + " >>ENTER>> part 7()", name + " <<LEAVE<< part 7()"}));
}

TEST_F(trace, scopes_that_are_switched_in_the_middle) {
    const std::string name = fresh_name("scope");
    const uint32 code = qorDebugAllocateCode(name.c_str());
    const auto set = [&name](bool on) { qorDebugEnableCode(name.c_str(), on); };
    {
        const qorDebugSeq plain(code, "first");
        const qorDebugSeq formatted(code, "%d", 1);
        set(true);
    }
    {
        const qorDebugSeq plain(code, "second");
        const qorDebugSeq formatted(code, "%d", 2);
        set(false);
    }
    EXPECT_EQ(lines(), (words{name + " <<LEAVE<< first()", name + " >>ENTER>> second()", name + " >>ENTER>> 2()"}));
}

TEST_F(trace, lines_of_many_threads_are_whole) {
    const std::string name = fresh_name("threads");
    constexpr int threads = 8;
    constexpr int rounds = 300;
    std::vector<std::thread> writers;
    const uint32 code = qorDebugAllocateCode(name.c_str());
    qorDebugEnableCode(name.c_str(), true);
    for (int i = 0; i < threads; ++i)
        writers.emplace_back([=] {
            for (int round = 0; round < rounds; ++round)
                qorDebug(code, "%d %d %s", i, round, std::string(static_cast<std::size_t>(round), 'x').c_str());
        });
    for (std::thread& each : writers)
        each.join();
    const std::vector<std::string> written = lines();
    EXPECT_EQ(written.size(), static_cast<std::size_t>(threads * rounds));
    std::vector<int> next(threads);
    for (const std::string& line : written) {
        int thread = -1;
        int round = -1;
        int end = 0;
        ASSERT_EQ(std::sscanf(line.c_str() + name.size(), " %d %d %n", &thread, &round, &end), 2) << line;
        ASSERT_EQ(round, next.at(static_cast<std::size_t>(thread))++) << line;
        ASSERT_EQ(line.substr(name.size() + static_cast<std::size_t>(end)),
                  std::string(static_cast<std::size_t>(round), 'x'));
    }
}

TEST_F(trace, switches_and_codes_may_be_used_on_any_thread) {
    const std::string family = fresh_name("");
    std::vector<std::thread> threads;
    std::atomic<bool> agree{true};
    std::vector<uint32> codes(20);
    for (std::size_t i = 0; i < codes.size(); ++i)
        codes[i] = qorDebugAllocateCode((family + std::to_string(i)).c_str());
    for (int thread = 0; thread < 4; ++thread)
        threads.emplace_back([&, thread] {
            for (int round = 0; round < 50; ++round) {
                for (std::size_t i = 0; i < codes.size(); ++i)
                    if (qorDebugAllocateCode((family + std::to_string(i)).c_str()) != codes[i])
                        agree = false;
                qorDebugEnableCode((family + "*").c_str(), thread % 2 == 0);
                qorDebug(codes[static_cast<std::size_t>(round) % codes.size()], "%d", round);
                qorStringArray on;
                qorDebugGetEnabledCodes(on);
            }
        });
    for (std::thread& each : threads)
        each.join();
    EXPECT_TRUE(agree);
}

namespace {

const qor::test::scene to_standard_error{"trace_standard_error", [](const words&) {
                                             qorDebugEnableCode("early.*", true);
                                             const uint32 code = qorDebugAllocateCode("early.bird");
                                             qorDebug(code, "to standard error");
                                             return 0;
                                         }};

const qor::test::scene all_codes{
    "trace_all_codes", [](const words&) {
        qorDebugEnableCode("*", true);
        for (uint32 i = 1; i < qorDebugMaxCodes; ++i)
            EXPECT_EQ(qorDebugAllocateCode(std::to_string(i).c_str()), i);
        qorString text;
        EXPECT_EQ(qorGetLastError(text), 0u);
        EXPECT_EQ(qorDebugAllocateCode("one.too.many"), 0u);
        EXPECT_EQ(qorGetLastError(text), qorError_no_trace_codes_left);
        EXPECT_STREQ(text, "No trace code is left for 'one.too.many': a process can have at most 16383.");
        EXPECT_EQ(qorDebugAllocateCode("16383"), 16383u);
        qorDebugEnableCode("*", true);
        EXPECT_FALSE(is_on(0));
        EXPECT_TRUE(is_on(16383));
        qorDebug(0, "nothing");
        return 0;
    }};

const qor::test::scene before_all_codes{"trace_before_codes", [](const words&) {
                                            qorDebug(0, "nothing");
                                            qorDebug(7, "nothing");
                                            qorDebug(0xffffffff, "nothing");
                                            const qorDebugSeq scope(7, "nothing %d", 7);
                                            return 0;
                                        }};

} // namespace

TEST(trace_process, lines_go_to_standard_error_by_themselves) {
    const ending ended = play(to_standard_error);
    EXPECT_EQ(ended.code, 0) << ended.out;
    EXPECT_EQ(bodies(ended.err), words{"early.bird to standard error"});
}

TEST(trace_process, codes_come_to_an_end) {
    const ending ended = play(all_codes, {}, {"QOR_DEBUG=*"});
    EXPECT_EQ(ended.code, 0) << ended.out;
    EXPECT_EQ(ended.err, "");
}

TEST(trace_process, before_the_first_code_tracing_is_silent) {
    const ending ended = play(before_all_codes);
    EXPECT_EQ(ended.code, 0) << ended.out;
    EXPECT_EQ(ended.err, "");
}
