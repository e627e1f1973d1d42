// Child processes: streams, ends, limits and refusals, with a program of the tests' own.
#include "qor/qor.h"
#include "support/holdings.h"
#include "support/last_error.h"
#include "support/platform.h"
#include "support/temp_folder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

namespace {

uint32 last_number() {
    qorString text;
    return qorGetLastError(text);
}

qorStringArray words(std::initializer_list<std::string_view> rest) {
    qorStringArray all;
    all.Append(QOR_CHILD_PEER);
    for (const std::string_view each : rest)
        all.Append(each);
    return all;
}

qorChildResult run(const qorStringArray& arguments, qorTextView input = "", qorChildProcessOptions options = {}) {
    options.arguments = &arguments;
    qorChildResult result;
    EXPECT_TRUE(qorExecuteChildProcess(options, input, result)) << qor::test::last_error();
    return result;
}

std::string without_returns(std::string text) {
    std::erase(text, '\r');
    return text;
}

TEST(child, its_streams_are_collected) {
    const qorChildResult result = run(words({"say", "it"}));
    EXPECT_EQ(without_returns(result.output), "out it\n");
    EXPECT_EQ(without_returns(result.errors), "err it\n");
    EXPECT_TRUE(result.end.IsSuccess());
    EXPECT_TRUE(result.end.peak_memory != 0 || !qor::test::tells_memory_of_ended);
}

TEST(child, its_exit_code_is_told) {
    EXPECT_EQ(run(words({"exit", "7"})).end.code, 7u);
    EXPECT_FALSE(run(words({"exit", "7"})).end.IsSuccess());
}

TEST(child, megabytes_go_both_ways_without_a_deadlock) {
    std::string input(5'000'001, '\0');
    std::mt19937 random(1);
    std::generate(input.begin(), input.end(), [&] { return static_cast<char>(random()); });
    const qorChildResult result = run(words({"copy"}), input);
    EXPECT_EQ(result.output, input);
    EXPECT_EQ(result.errors, "");
}

TEST(child, both_outputs_may_be_long) {
    const qorChildResult result = run(words({"both", "500"}));
    EXPECT_EQ(result.output.size(), 500u * 4096);
    EXPECT_EQ(result.errors.size(), 500u * 4096);
}

TEST(child, one_that_does_not_read_is_no_failure) {
    const std::string input(5'000'000, 'x');
    EXPECT_EQ(run(words({"exit", "3"}), input).end.code, 3u);
}

TEST(child, any_argument_arrives_as_it_is) {
    std::mt19937 random(7);
    constexpr std::string_view pieces[] = {
        "\"", "\\",     " ",  "\t", "%PATH%",           "^", "&", "|", "a", "", "\xc3\xa4", "'", "$x", "*",
        "\n", "\\\\\"", "--", "=",  "\xf0\x9f\x98\x80", "!"};
    const int rounds = std::getenv("QOR_TEST_WHOLE") != nullptr ? 200 : 20;
    for (int round = 0; round < rounds; ++round) {
        qorStringArray all = words({"arguments"});
        for (int i = 0; i < 50; ++i) {
            std::string text;
            for (std::size_t j = random() % 8; j != 0; --j)
                text += pieces[random() % std::size(pieces)];
            all.Append(text);
        }
        std::string expected;
        for (const qorString& each : all) {
            char digits[3];
            for (const char byte : std::string_view(each)) {
                std::snprintf(digits, sizeof digits, "%02x", static_cast<unsigned char>(byte));
                expected += digits;
            }
            expected += '\n';
        }
        ASSERT_EQ(without_returns(run(all).output), expected);
    }
}

TEST(child, has_the_variables_that_it_is_given) {
    qorStringArray variables;
    variables.Append("QOR_CHILD=one=two");
    for (const char* const needed : {"SystemRoot", "WINEPREFIX", "PATH"})
        if (const char* const value = std::getenv(needed)) {
            std::string entry = needed;
            entry.append("=").append(value);
            variables.Append(entry);
        }
    EXPECT_EQ(without_returns(run(words({"variable", "QOR_CHILD"}), "", {.environment = &variables}).output),
              "one=two\n");
    EXPECT_EQ(without_returns(run(words({"variable", "QOR_CHILD"})).output), "(none)\n");
}

TEST(child, streams_lead_to_files) {
    const qor::test::temp_folder folder;
    const std::string in = folder.file("in", "from a file");
    const std::string out = folder / "out";
    const qorStringArray all = words({"copy"});
    for (const bool append : {false, true}) {
        qorChildEnd end;
        ASSERT_TRUE(qorExecuteChildProcess({.arguments = &all,
                                            .input = {qorChildStreamKind::file, in.c_str()},
                                            .output = {qorChildStreamKind::file, out.c_str(), append}},
                                           "", nullptr, nullptr, end));
        EXPECT_EQ(qor::test::read_file(out), append ? "from a filefrom a file" : "from a file");
    }
}

TEST(child, errors_may_go_where_the_output_goes) {
    const qorChildResult result = run(words({"say", "x"}), "", {.errors = {qorChildStreamKind::output}});
    EXPECT_EQ(result.errors, "");
    EXPECT_NE(result.output.find("err x"), std::string::npos);
    EXPECT_NE(result.output.find("out x"), std::string::npos);
}

TEST(child, nothing_can_be_read_from_null) {
    const qorChildResult result = run(words({"copy"}), "", {.input = {qorChildStreamKind::null}});
    EXPECT_EQ(result.output, "");
    EXPECT_TRUE(result.end.IsSuccess());
}

zetSmartPointer<IQORChildProcess> start(const qorStringArray& arguments, qorChildProcessOptions options = {}) {
    options.arguments = &arguments;
    zetSmartPointer<IQORChildProcess> made;
    EXPECT_TRUE(qorCreateChildProcess(options, made.Out())) << qor::test::last_error();
    return made;
}

constexpr qorChildProcessOptions all_pipes = {
    .input = {qorChildStreamKind::pipe}, .output = {qorChildStreamKind::pipe}, .errors = {qorChildStreamKind::pipe}};

TEST(child, can_be_talked_to) {
    const auto child = start(words({"copy"}), all_pipes);
    ASSERT_FALSE(child.IsEmpty());
    EXPECT_NE(child->GetId(), 0u);
    EXPECT_TRUE(child->IsRunning());
    char buffer[100];
    uint64 count = 1;
    EXPECT_FALSE(child->Read(qorChildOutput::output, buffer, sizeof buffer, 1, count));
    EXPECT_EQ(last_number(), uint32{qorError_timed_out});
    uint64 written = 0;
    EXPECT_TRUE(child->WriteInput("hello", 5, 0, &written));
    EXPECT_EQ(written, 5u);
    qorChildEnd end;
    EXPECT_FALSE(child->Wait(1, end));
    EXPECT_EQ(last_number(), uint32{qorError_timed_out});
    child->CloseInput();
    EXPECT_FALSE(child->WriteInput("x", 1, 0, nullptr));
    EXPECT_EQ(last_number(), uint32{qorError_child_without_pipe});
    EXPECT_TRUE(child->Read(qorChildOutput::output, buffer, 3, 0, count));
    EXPECT_EQ(std::string(buffer, count), "hel");
    EXPECT_TRUE(child->Read(qorChildOutput::output, buffer, sizeof buffer, 0, count));
    EXPECT_EQ(std::string(buffer, count), "lo");
    EXPECT_TRUE(child->Read(qorChildOutput::output, buffer, sizeof buffer, 0, count));
    EXPECT_EQ(count, 0u);
    for (int i = 0; i < 2; ++i)
        EXPECT_TRUE(child->Wait(end));
    EXPECT_TRUE(end.IsSuccess());
    EXPECT_FALSE(child->IsRunning());
    EXPECT_TRUE(child->End(qorChildEnding::kill)); // nothing to do
}

TEST(child, writing_to_one_that_does_not_read_has_a_limit) {
    const auto child = start(words({"sleep"}), all_pipes);
    const std::string much(10'000'000, 'x');
    uint64 written = 0;
    EXPECT_FALSE(child->WriteInput(much.data(), much.size(), 20, &written));
    EXPECT_EQ(last_number(), uint32{qorError_timed_out});
    EXPECT_LT(written, much.size());
    EXPECT_TRUE(child->End(qorChildEnding::kill));
    qorChildEnd end;
    EXPECT_TRUE(child->Wait(end));
    EXPECT_FALSE(end.IsSuccess());
}

TEST(child, writing_to_one_that_has_ended_is_an_error_and_not_the_end) {
    const auto child = start(words({"exit", "0"}), all_pipes);
    qorChildEnd end;
    EXPECT_TRUE(child->Wait(end));
    const std::string much(1'000'000, 'x');
    EXPECT_FALSE(child->WriteInput(much.data(), much.size(), 0, nullptr));
    EXPECT_EQ(last_number(), uint32{qorError_child_failed});
}

TEST(child, its_time_is_limited) {
    for (const bool whole_tree : {false, true}) {
        const qorStringArray all = words({"sleep"});
        qorChildResult result;
        EXPECT_FALSE(qorExecuteChildProcess({.arguments = &all, .whole_tree = whole_tree, .time_limit = 50},
                                            std::string(1'000'000, 'x'), result));
        EXPECT_EQ(last_number(), uint32{qorError_child_timed_out});
        EXPECT_FALSE(result.end.IsSuccess());
    }
}

class full_sink final : public qor::object<IQORDataSink> {
public:
    full_sink() : object("full", "IQORDataSink") {}
    bool Write(const void*, uint32) noexcept override {
        qorSetLastError(qorError_disk_full);
        return false;
    }
};

TEST(child, a_sink_that_fails_ends_it) {
    zetSmartPointer<full_sink> sink;
    sink.AttachNew(QOR_NEW full_sink);
    const qorStringArray all = words({"both", "1000000"});
    qorChildProcessOptions options = all_pipes;
    options.arguments = &all;
    qorChildEnd end;
    EXPECT_FALSE(qorExecuteChildProcess(options, "", *sink, nullptr, end));
    EXPECT_EQ(last_number(), uint32{qorError_disk_full});
}

TEST(child, what_cannot_be_started_is_refused) {
    const qor::test::temp_folder folder;
    qorChildResult result;
    EXPECT_FALSE(qorExecuteChildProcess({"no such program of qor"}, result));
    EXPECT_EQ(qor::test::last_error(), "There is no program 'no such program of qor'.");
    EXPECT_FALSE(qorExecuteChildProcess({(folder / "missing").c_str()}, result));
    EXPECT_EQ(last_number(), uint32{qorError_child_program_missing});
    EXPECT_FALSE(qorExecuteChildProcess({""}, result));
    EXPECT_EQ(last_number(), uint32{qorError_child_program_missing});
    EXPECT_FALSE(qorExecuteChildProcess({}, "", result));
    EXPECT_EQ(last_number(), uint32{qorError_invalid_argument});

    const qorStringArray all = words({"exit", "0"});
    const auto refused = [&](qorChildProcessOptions options) {
        options.arguments = &all;
        IQORChildProcess* made = nullptr;
        EXPECT_FALSE(qorCreateChildProcess(options, &made));
        EXPECT_EQ(made, nullptr);
        return last_number();
    };
    const std::string missing = folder / "missing/file";
    EXPECT_EQ(refused({.folder = missing.c_str()}), uint32{qorError_child_folder});
    EXPECT_EQ(refused({.input = {qorChildStreamKind::file, missing.c_str()}}), uint32{qorError_cannot_open_file});
    EXPECT_EQ(refused({.output = {qorChildStreamKind::file}}), uint32{qorError_invalid_argument});
    EXPECT_EQ(refused({.output = {qorChildStreamKind::output}}), uint32{qorError_invalid_argument});
    EXPECT_EQ(refused({.umask = 01000}), uint32{qorError_invalid_argument});
    const qorChildHandle closed = {123456, 5};
    EXPECT_EQ(refused({.handles = &closed, .handle_count = 1}), uint32{qorError_child_handle});

    qorStringArray variables;
    for (const char* const odd : {"PATH", "", "="}) {
        variables.Empty();
        variables.Append("A=B");
        variables.Append(odd);
        EXPECT_EQ(refused({.environment = &variables}), uint32{qorError_invalid_argument});
        EXPECT_EQ(qor::test::last_error(), "qorCreateChildProcess was called with an invalid argument: environment, "
                                           "because the entry with the index 1 is not of the form NAME=VALUE.");
    }
    qorStringArray with_nul = words({std::string_view("a\0b", 3)});
    EXPECT_FALSE(qorExecuteChildProcess({.arguments = &with_nul}, "", result));
    EXPECT_EQ(qor::test::last_error(), "qorCreateChildProcess was called with an invalid argument: arguments, because "
                                       "the one with the index 1 has a NUL in it.");
}

TEST(child, many_leave_nothing_behind) {
    const qorStringArray all = words({"exit", "0"});
    const auto start_one = [&, kind = 0]() mutable {
        qorChildResult result;
        zetSmartPointer<IQORChildProcess> left;
        switch (++kind % 3) {
        case 0:
            EXPECT_FALSE(qorExecuteChildProcess({"./no such program"}, result));
            break;
        case 1:
            EXPECT_TRUE(qorExecuteChildProcess({.arguments = &all}, "input", result));
            break;
        default:
            EXPECT_TRUE(qorCreateChildProcess({.arguments = &all}, left.Out()));
        }
    };
    // Those that were left alone are reaped when another one is started.
    const auto reap = [&] {
        qorSleep(1);
        (void)run(all);
    };
    qor::test::expect_to_leave_nothing(start_one, reap, std::getenv("QOR_TEST_WHOLE") != nullptr ? 1000 : 100);
}

} // namespace
