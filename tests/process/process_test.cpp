#include "platform/own_process.h"
#include "qor/qor.h"
#include "support/platform.h"
#include "support/scenes.h"

#include <gtest/gtest.h>

#include <thread>

namespace {

using qor::test::ending;
using qor::test::play;
using qor::test::scene;
using qor::test::words;

bool start(const words& arguments, qorStringArray& args, unsigned flags = 0) {
    args.Append("program");
    for (const std::string& word : arguments)
        args.Append(word.c_str());
    return qorInitProcess("watcher", args, flags);
}

} // namespace

// ---------------------------------------------------------------- versions

TEST(versions, compare_by_numbers) {
    const struct {
        const char* left;
        const char* right;
        int order;
    } table[] = {
        {"", "", 0},
        {"3.9", "3.10", -1},
        {"3.10", "3.9", 1},
        {"3.35.21", "3.35.21", 0},
        {"3.35.21", "3.35.3", 1},
        {"3", "3.0.0", 0},
        {"3", "3.0.1", -1},
        {"", "0.0", 0},
        {"", "1", -1},
        {"03.007", "3.7", 0},
        {"4294967296", "4294967295", 1},
        {"18446744073709551615", "18446744073709551614", 1},
        {"3.x.1", "3.0.1", 0},
        {"x", "1", -1},
        {"3.7-beta", "3.7", 0},
        {"3.7-beta.2", "3.7.1", 1},
        {"1..2", "1.0.2", 0},
        {".", "", 0},
        {"1.", "1", 0},
    };
    const auto sign = [](int value) { return (value > 0) - (value < 0); };
    for (const auto& each : table) {
        EXPECT_EQ(sign(qorCompareVersions(each.left, each.right)), each.order) << each.left << ' ' << each.right;
        EXPECT_EQ(sign(qorCompareVersions(each.right, each.left)), -each.order) << each.left << ' ' << each.right;
    }
}

// ---------------------------------------------------------------- cleanup

namespace {

std::string s_calls;

void note(void* context) noexcept { s_calls += static_cast<const char*>(context); }

void note_and_register(void* context) noexcept {
    note(context);
    qorRegisterCleanupRoutine(note, const_cast<char*>("d"));
}

const scene cleanup{"process_cleanup", [](const words&) {
                        EXPECT_TRUE(qorRegisterCleanupRoutine(note, const_cast<char*>("0")));
                        qorStringArray args;
                        EXPECT_TRUE(start({}, args));
                        EXPECT_TRUE(qorRegisterCleanupRoutine(note, const_cast<char*>("a")));
                        EXPECT_TRUE(qorRegisterCleanupRoutine(note_and_register, const_cast<char*>("b")));
                        EXPECT_TRUE(qorRegisterCleanupRoutine(note, const_cast<char*>("c")));
                        EXPECT_TRUE(qorRegisterCleanupRoutine(note, const_cast<char*>("c")));
                        EXPECT_EQ(s_calls, "");
                        qorCleanup();
                        EXPECT_EQ(s_calls, "ccbda0");
                        qorCleanup();
                        EXPECT_EQ(s_calls, "ccbda0");
                        // Memory and strings can still be used.
                        qorString text("still");
                        text.Append(" there");
                        EXPECT_STREQ(text, "still there");
                        qor_do_free(qor_do_malloc(0, 10, true, "f", 1), "f", 1);
                        return 0;
                    }};

const scene no_cleanup{"process_no_cleanup", [](const words&) {
                           qorRegisterCleanupRoutine([](void*) noexcept { std::puts("called"); }, nullptr);
                           return 0;
                       }};

} // namespace

TEST(process, cleanup_routines_run_once_the_last_first) {
    const ending ended = play(cleanup);
    EXPECT_EQ(ended.code, 0) << ended.out << ended.err;
}

TEST(process, without_qor_cleanup_no_routine_runs) {
    const ending ended = play(no_cleanup);
    EXPECT_EQ(ended.code, 0);
    EXPECT_EQ(ended.out, "");
}

TEST(process, a_cleanup_routine_must_be_one) {
    qorClearLastError();
    EXPECT_FALSE(qorRegisterCleanupRoutine(nullptr, nullptr));
    qorString text;
    EXPECT_EQ(qorGetLastError(text), qorError_invalid_argument);
}

// ---------------------------------------------------------------- the start

namespace {

const scene names{"process_names", [](const words&) {
                      EXPECT_EQ(qor::platform::name(), qor::test::program_name());
                      qorStringArray args;
                      EXPECT_TRUE(start({"word"}, args));
                      EXPECT_STREQ(qor::platform::name(), "watcher");
                      EXPECT_EQ(args.GetCount(), 1u);
                      EXPECT_STREQ(args[0], "word");
                      return 0;
                  }};

const scene no_words{"process_no_words", [](const words&) {
                         qorStringArray args;
                         EXPECT_TRUE(qorInitProcess("watcher", args, 0));
                         EXPECT_TRUE(args.IsEmpty());
                         return 0;
                     }};

const scene flags{"process_flags", [](const words&) {
                      for (const unsigned value : {1u, 0x80000000u}) {
                          qorStringArray args;
                          qorClearLastError();
                          EXPECT_FALSE(start({}, args, value));
                          qorString text;
                          EXPECT_EQ(qorGetLastError(text), qorError_invalid_argument);
                      }
                      return 0;
                  }};

constexpr char long_name[] = "a process with a name that is too long for any small buffer in a string";

const scene late_assertion{"process_late_assertion", [](const words&) {
                               std::atexit([] { qorAssertFailed("expression", "function", "file", 7); });
                               qorStringArray args;
                               args.Append("program");
                               EXPECT_TRUE(qorInitProcess(long_name, args, 0));
                               return 0;
                           }};

} // namespace

TEST(process, the_name_is_the_one_that_was_given) {
    const ending ended = play(names);
    EXPECT_EQ(ended.code, 0) << ended.out;
}

TEST(process, an_empty_argument_vector) {
    const ending ended = play(no_words);
    EXPECT_EQ(ended.code, 0) << ended.out;
}

TEST(process, flags_are_refused) {
    const ending ended = play(flags);
    EXPECT_EQ(ended.code, 0) << ended.out;
}

TEST(process, an_assertion_in_an_exit_handler_names_the_process) {
    const ending ended = play(late_assertion);
    EXPECT_EQ(ended.code, 0);
    EXPECT_EQ(ended.err, std::string(long_name) + ": assertion failed: expression, in function (file:7)\n");
}

TEST(main_thread, is_the_first_one) {
    EXPECT_TRUE(qor::platform::is_main_thread());
    std::thread([] { EXPECT_FALSE(qor::platform::is_main_thread()); }).join();
}
