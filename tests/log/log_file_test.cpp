// The log in a file and on standard error. Each scene is a process of its own, because a process has one log.
#include "qor/qor.h"
#include "support/last_error.h"
#include "support/line_heads.h"
#include "support/platform.h"
#include "support/scenes.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string_view>
#include <thread>

namespace {

using namespace qor::test;

constexpr int flood = 5'000;

void start(const std::string& path) { EXPECT_TRUE(qorSetLogTarget(path.c_str())); }

const scene entries{"log_entries", [](const words& arguments) {
                        qorStringArray args;
                        args.Append("my app");
                        for (const std::string& each : arguments)
                            args.Append(each.c_str());
                        EXPECT_TRUE(qorInitProcess("my app", args, 0));
                        EXPECT_EQ(args.GetCount(), 0u);
                        EXPECT_TRUE(qorSendLogText(qorLogLevel::warning, "one\ntwo\xff", {"/a/b c.cpp", 12, "f"}));
                        EXPECT_TRUE(qorSendLogText(qorLogLevel::debug, "left out"));
                        EXPECT_TRUE(qorSetLogLevel(qorLogLevel::debug));
                        EXPECT_TRUE(qorSendLogText(qorLogLevel::debug, "Grüße", {nullptr, 0, nullptr}));
                        EXPECT_TRUE(qorSetLogLevel(qorLogLevel::error));
                        EXPECT_TRUE(qorSendLogText(qorLogLevel::warning, "left out"));
                        EXPECT_TRUE(qorSetLogLevel(qorLogLevel::info));
                        EXPECT_TRUE(qorSendLogMessage(qorLogLevel::error, "qorcore", 10, "a file", "a reason"));
                        EXPECT_TRUE(qorSendLogMessage(qorLogLevel::error, "nosuch", 3, nullptr, "b"));
                        qorLogEntry entry(qorLogLevel::notice);
                        EXPECT_TRUE(entry.Text("text").Field("DISK", "s\"da").Field("N_2", "").Send());
                        EXPECT_TRUE(entry.Field("DISK", "other").Message("qorcore", 10, "x", "y").Send());
                        qorCleanup();
                        return 0;
                    }};

std::string without_place(std::string line) {
    constexpr std::string_view place = " log_file_test.cpp:";
    if (const std::size_t at = line.find(place); at != line.npos)
        line.erase(at, line.find_first_not_of("0123456789", at + place.size()) - at);
    return line;
}

void expect_entries(const words& lines) {
    ASSERT_EQ(lines.size(), 6u);
    EXPECT_EQ(lines[0], R"(my\x20app warning b\x20c.cpp:12: one\ntwo\xff)");
    EXPECT_EQ(lines[1], "my\\x20app debug -: Grüße");
    EXPECT_EQ(without_place(lines[2]), R"(my\x20app error QOR_MESSAGE="qorcore:10" QOR_INSERT_1="a file" )"
                                       R"(QOR_INSERT_2="a reason": Cannot open 'a file': a reason.)");
    EXPECT_EQ(without_place(lines[3]), R"(my\x20app error QOR_MESSAGE="nosuch:3" QOR_INSERT_2="b": nosuch:3 b)");
    EXPECT_EQ(without_place(lines[4]), R"(my\x20app notice DISK="s\"da" N_2="": text)");
    EXPECT_EQ(without_place(lines[5]), R"(my\x20app notice QOR_MESSAGE="qorcore:10" QOR_INSERT_1="x" QOR_INSERT_2="y" )"
                                       R"(DISK="other" N_2="": Cannot open 'x': y.)");
}

const scene killed{"log_file_killed", [](const words& arguments) {
                       start(arguments[0]);
                       for (int i = 0; i < flood; ++i)
                           qorSendLogText(qorLogLevel::info, std::to_string(i));
                       kill_process();
                       return 0;
                   }};

const scene rotated{"log_rotated", [](const words& arguments) {
                        start(arguments[0]);
                        for (int i = 0; i < flood; ++i) {
                            qorSendLogText(qorLogLevel::info, std::to_string(i));
                            if (i == flood / 2)
                                std::filesystem::rename(arguments[0], arguments[0] + ".1");
                        }
                        // The name is looked up once in a while.
                        while (!std::filesystem::exists(arguments[0]))
                            qorSendLogText(qorLogLevel::info, "more");
                        qorCleanup();
                        return 0;
                    }};

const scene threads{"log_file_threads", [](const words& arguments) {
                        start(arguments[0]);
                        std::vector<std::thread> all;
                        for (int thread = 0; thread < 4; ++thread)
                            all.emplace_back([thread, &arguments] {
                                for (int i = 0; i < flood; ++i) {
                                    qorSendLogText(qorLogLevel::info,
                                                   "of " + std::to_string(thread) + " " + std::to_string(i));
                                    if (thread == 0 && i % 500 == 0) {
                                        EXPECT_TRUE(qorSetLogTarget(arguments[0].c_str()));
                                    }
                                }
                            });
                        for (std::thread& each : all)
                            each.join();
                        return 0;
                    }};

const scene with_trace{"log_with_trace", [](const words& arguments) {
                           start(arguments[0]);
                           EXPECT_TRUE(qorDebugAttachFile(arguments[1].c_str()));
                           EXPECT_TRUE(qorDebugEnableCode("both", true));
                           const uint32 code = qorDebugAllocateCode("both");
                           for (int i = 0; i < flood; ++i) {
                               qorSendLogText(qorLogLevel::info, std::to_string(i));
                               qorDebug(code, "%d", i);
                           }
                           return 0;
                       }};

std::string text_of(const std::string& line) { return line.substr(line.find(": ") + 2); }

words numbers() {
    words all;
    for (int i = 0; i < flood; ++i)
        all.push_back(std::to_string(i));
    return all;
}

class log_file : public testing::Test {
protected:
    const temp_folder m_folder;
    const std::string m_path = m_folder / "log";
};

} // namespace

TEST_F(log_file, has_each_entry_in_a_line) {
    const ending ended = play(entries, {"--qor-log=" + m_path});
    EXPECT_EQ(ended.code, 0) << ended.out << ended.err;
    EXPECT_EQ(ended.err, "");
    expect_entries(bodies(read_file(m_path)));
}

TEST_F(log_file, is_named_by_the_environment) {
    EXPECT_EQ(play(entries, {}, {"QOR_LOG=" + m_path}).code, 0);
    expect_entries(bodies(read_file(m_path)));
}

TEST_F(log_file, may_be_standard_error) {
    const ending ended = play(entries, {"--qor-log=stderr"}, {"QOR_LOG=" + m_path});
    EXPECT_EQ(ended.code, 0) << ended.out;
    expect_entries(bodies(ended.err));
    EXPECT_FALSE(std::filesystem::exists(m_path));
}

TEST_F(log_file, of_a_killed_process_is_in_the_file_and_its_rest) {
    EXPECT_EQ(play(killed, {m_path}).code, killed_code);
    std::string text = read_file(m_path);
    for (const auto& each : std::filesystem::directory_iterator(m_folder.path()))
        if (each.path() != m_path) {
            const std::string rest = read_file(each.path());
            text.append(rest, 0, std::min(rest.find('\0'), rest.size()));
        }
    words texts = bodies(text);
    std::ranges::transform(texts, texts.begin(), text_of);
    EXPECT_TRUE(texts == numbers()) << texts.size();
}

TEST_F(log_file, goes_on_under_its_name_after_a_rotation) {
    EXPECT_EQ(play(rotated, {m_path}).code, 0);
    words texts = bodies(read_file(m_path + ".1") + read_file(m_path));
    std::ranges::transform(texts, texts.begin(), text_of);
    std::erase(texts, "more");
    EXPECT_TRUE(texts == numbers()) << texts.size();
}

TEST_F(log_file, has_the_entries_of_all_threads) {
    EXPECT_EQ(play(threads, {m_path}).code, 0);
    std::vector<int> next(4);
    for (const std::string& line : bodies(read_file(m_path))) {
        int thread = 0, number = 0;
        ASSERT_EQ(std::sscanf(text_of(line).c_str(), "of %d %d", &thread, &number), 2) << line;
        ASSERT_EQ(number, next.at(static_cast<std::size_t>(thread))++);
    }
    EXPECT_EQ(next, std::vector<int>(4, flood));
}

TEST_F(log_file, does_not_mix_with_the_trace) {
    EXPECT_EQ(play(with_trace, {m_path, m_folder / "trace"}).code, 0);
    words texts = bodies(read_file(m_path));
    std::ranges::transform(texts, texts.begin(), text_of);
    EXPECT_TRUE(texts == numbers()) << texts.size();
    EXPECT_EQ(bodies(read_file(m_folder / "trace")).size(), static_cast<std::size_t>(flood));
}

TEST_F(log_file, that_cannot_be_opened_changes_nothing) {
    ASSERT_TRUE(qorSetLogTarget(m_path.c_str()));
    EXPECT_FALSE(qorSetLogTarget((m_folder / "no/file").c_str()));
    EXPECT_EQ(last_error(), "Cannot write '" + m_folder / "no/file" + "': " + system_reasons().no_folder + ".");
    EXPECT_FALSE(qorSetLogTarget(nullptr));
    EXPECT_FALSE(qorSetLogTarget(""));
    qorSendLogText(qorLogLevel::info, "still here");
    EXPECT_TRUE(qorFlushLog(0));
    EXPECT_TRUE(qorSetLogTarget("stderr"));
    EXPECT_EQ(bodies(read_file(m_path)).size(), 1u);
}

TEST_F(log_file, leaves_the_last_error_alone) {
    ASSERT_TRUE(qorSetLogTarget(m_path.c_str()));
    qorSetLastError(qorError_cannot_open_file, "a", "b");
    qorSendLogText(qorLogLevel::info, "text");
    qorLogEntry(qorLogLevel::info).Text("text").Field("A", "b").Send();
    EXPECT_EQ(last_error(), "Cannot open 'a': b.");
    EXPECT_TRUE(qorSetLogTarget("stderr"));
}

TEST(log_entry, refuses_what_is_no_level) {
    const auto none = static_cast<qorLogLevel>(8);
    EXPECT_FALSE(qorSendLogText(none, "x"));
    EXPECT_FALSE(qorSendLogMessage(none, "qorcore", 10));
    EXPECT_FALSE(qorSetLogLevel(none));
    qorLogEntry entry(qorLogLevel::debug);
    EXPECT_FALSE(entry->SetLevel(none));
    EXPECT_EQ(entry->GetLevel(), qorLogLevel::debug);
}

TEST(log_entry, refuses_names_that_the_journal_would_refuse_or_that_are_taken) {
    qorLogEntry entry(qorLogLevel::debug);
    for (const std::string& name :
         {std::string(), std::string("a"), std::string("_A"), std::string("1A"), std::string("A-B"), std::string("A B"),
          std::string("A=B"), std::string("A\n"), std::string("\xc3\x84"), std::string(65, 'A')}) {
        EXPECT_FALSE(entry->SetField(name, "x")) << name;
        EXPECT_EQ(last_error(), "'" + name +
                                    "' cannot be the name of a log entry's field: a name has capital letters, "
                                    "digits and '_', begins with a letter, and has at most 64 bytes.");
    }
    for (const char* const name : {"MESSAGE", "PRIORITY", "TID", "CODE_X", "QOR_MESSAGE", "SYSLOG_PID"}) {
        EXPECT_FALSE(entry->SetField(name, "x")) << name;
        EXPECT_NE(last_error().find("the framework uses this name itself"), std::string::npos);
    }
    for (const std::string& name :
         {std::string("A"), std::string("MESSAGE_ID"), std::string("A_1"), std::string(64, 'A')})
        EXPECT_TRUE(entry->SetField(name, "x")) << name;
    EXPECT_FALSE(qorLogEntry(qorLogLevel::debug).Field("bad name", "x").Text("x").Send());
}

TEST(log_entry, has_a_largest_size) {
    const std::string most(qorMaxLogEntry, 'x');
    EXPECT_FALSE(qorSendLogText(qorLogLevel::debug, most + "x"));
    EXPECT_EQ(last_error(), "The log entry is too large: it takes at most 256 fields and 1048576 bytes.");
    EXPECT_TRUE(qorSendLogText(qorLogLevel::debug, most));
    qorLogEntry entry(qorLogLevel::debug);
    EXPECT_TRUE(entry->SetText(most));
    EXPECT_FALSE(entry->SetField("A", ""));
    EXPECT_TRUE(entry->SetText("kept"));
    EXPECT_TRUE(entry->SetField("A", std::string_view(most).substr(5)));
    EXPECT_FALSE(entry->SetText("kept."));
    EXPECT_TRUE(entry->SetField("A", "b")); // the old value does not count
    qorString text;
    entry->GetText(text);
    EXPECT_EQ(text, "kept");
    for (int i = 1; i < 256; ++i)
        EXPECT_TRUE(entry->SetField("F" + std::to_string(i), "x"));
    EXPECT_FALSE(entry->SetField("ONE_MORE", "x"));
    EXPECT_TRUE(entry->SetField("F7", "y"));
    entry->RemoveFields();
    EXPECT_TRUE(entry->SetField("ONE_MORE", "x"));
}
