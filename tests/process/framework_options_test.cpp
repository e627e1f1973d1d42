// The framework's own options. Each scene is a separate process, because options are taken only once.
#include "qor/qor.h"
#include "support/platform.h"
#include "support/scenes.h"
#include "support/temp_folder.h"

#include <gtest/gtest.h>

#include <chrono>

namespace {

using qor::test::ending;
using qor::test::play;
using qor::test::read_file;
using qor::test::scene;
using qor::test::temp_folder;
using qor::test::words;

// Starts with the scene's arguments. Prints the remaining words, the languages and the enabled trace codes, or the
// error and ends with 1.
const scene start{"options_start", [](const words& arguments) {
                      qorStringArray args;
                      args.Append("program");
                      for (const std::string& word : arguments)
                          args.Append(word.c_str());
                      if (!qorInitProcess("program", args, 0)) {
                          qorString text;
                          std::printf("%u ", qorGetLastError(text));
                          text.Put(stdout, false);
                          return 1;
                      }
                      for (uint32 i = 0; i < args.GetCount(); ++i)
                          std::printf("[%s]", args[i]);
                      qorStringArray languages;
                      qorGetActiveCatalogLanguages(languages);
                      for (uint32 i = 0; i < languages.GetCount(); ++i)
                          std::printf(" %s", languages[i]);
                      for (const char* const code : {"a.one", "a.two", "b.one"})
                          if (qor::glue::debug_is_on(qorDebugAllocateCode(code)))
                              std::printf(" %s", code);
                      qorDebug(qorDebugAllocateCode("a.one"), "traced");
                      qor_do_free(qor_do_malloc(0, 1, true, "here", 1), "here", 2);
                      qorCleanup();
                      return 0;
                  }};

std::string printed(const words& arguments, const words& environment = {}) {
    const ending ended = play(start, arguments, environment);
    EXPECT_EQ(ended.code, 0) << ended.out << ended.err;
    return ended.out;
}

void expect_error(const words& arguments, const words& environment, const std::string& error) {
    const ending ended = play(start, arguments, environment);
    EXPECT_EQ(ended.code, 1);
    EXPECT_EQ(ended.out, error);
    EXPECT_EQ(ended.err, "");
}

class framework_options : public testing::Test {
protected:
    const temp_folder m_folder;
    const std::string m_path = m_folder / "file";
};

} // namespace

TEST_F(framework_options, without_any_all_words_are_the_programs) {
    EXPECT_EQ(printed({}), " en");
    EXPECT_EQ(printed({"word", "--quiet", "-qor-debug=x", "--qor", "--qordebug=x", "", "---qor-debug=x"}),
              "[word][--quiet][-qor-debug=x][--qor][--qordebug=x][][---qor-debug=x] en");
}

TEST_F(framework_options, are_taken_out_wherever_they_stand) {
    EXPECT_EQ(printed({"--qor-language=de", "a", "--qor-debug=nosuch", "--b", "c", "--qor-language=fr"}),
              "[a][--b][c] fr en");
}

// Removing an option must not move all later words, which would take quadratic time.
TEST_F(framework_options, as_many_as_there_may_be_are_taken_out) {
    constexpr uint32 count = 200'000;
    qorStringArray args;
    args.Append("program");
    for (uint32 i = 0; i < count; ++i) {
        args.Append("--qor-debug=,");
        args.Append(std::to_string(i).c_str());
    }
    for (const char* const rest : {"--", "--qor-debug=,"})
        args.Append(rest);
    const auto begin = std::chrono::steady_clock::now();
    ASSERT_TRUE(qorInitProcess("program", args, 0));
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(20));
    ASSERT_EQ(args.GetCount(), count + 2);
    for (uint32 i = 0; i < count; ++i)
        ASSERT_EQ(args[i], std::to_string(i));
    EXPECT_STREQ(args[count], "--");
    EXPECT_STREQ(args[count + 1], "--qor-debug=,");
}

TEST_F(framework_options, two_dashes_end_them_and_stay) {
    EXPECT_EQ(printed({"--qor-language=de", "--", "--qor-language=fr", "--qor-nosuch"}),
              "[--][--qor-language=fr][--qor-nosuch] de en");
}

TEST_F(framework_options, unknown_ones_are_errors) {
    const std::string hint = "'. 'help' lists its options.";
    expect_error({"--qor-nosuch"}, {}, "20 The framework has no option '--qor-nosuch" + hint);
    expect_error({"word", "--qor-nosuch=value"}, {}, "20 The framework has no option '--qor-nosuch" + hint);
    expect_error({"--qor-"}, {}, "20 The framework has no option '--qor-" + hint);
    expect_error({"--qor-=x"}, {}, "20 The framework has no option '--qor-" + hint);
    expect_error({"--qor-debu=x"}, {}, "20 The framework has no option '--qor-debu" + hint);
    expect_error({"--qor-debugs=x"}, {}, "20 The framework has no option '--qor-debugs" + hint);
    expect_error({"--qor-Debug=x"}, {}, "20 The framework has no option '--qor-Debug" + hint);
}

TEST_F(framework_options, each_needs_a_value) {
    const std::map<std::string, std::string> values = {
        {"debug", "NAMES"}, {"debug-file", "FILE"}, {"memcheck", "FILE"}, {"language", "LIST"}};
    for (const auto& [name, value] : values)
        for (const char* const end : {"", "="}) {
            const std::string option = "--qor-" + name;
            expect_error({option + end}, {},
                         "21 The option '" + option + "' needs a value: " + option + "=" + value + ".");
        }
}

TEST_F(framework_options, trace_codes_are_switched_on) {
    EXPECT_EQ(printed({"--qor-debug=a.*", "--qor-debug-file=" + m_path}), " en a.one a.two");
    EXPECT_EQ(printed({"--qor-debug=*.one", "--qor-debug-file=" + m_path}), " en a.one b.one");
    EXPECT_EQ(printed({"--qor-debug=,b.one,,a.two,", "--qor-debug-file=" + m_path}), " en a.two b.one");
    EXPECT_EQ(printed({"--qor-debug=,"}), " en");
}

TEST_F(framework_options, the_trace_goes_to_a_file) {
    printed({"--qor-debug-file=" + m_path, "--qor-debug=a.one"});
    printed({"--qor-debug-file=" + m_path, "--qor-debug=a.one"});
    const std::string trace = read_file(m_path);
    EXPECT_EQ(std::count(trace.begin(), trace.end(), '\n'), 2) << trace;
    EXPECT_TRUE(trace.ends_with(" a.one traced\n")) << trace;
    const ending ended = play(start, {"--qor-debug=a.one"});
    EXPECT_TRUE(ended.err.ends_with(" a.one traced\n")) << ended.err;
}

TEST_F(framework_options, the_allocation_log_goes_to_a_file) {
    printed({"--qor-memcheck=" + m_path});
    const std::string log = read_file(m_path);
    EXPECT_NE(log.find(" 1 0 here 1\n"), std::string::npos) << log;
    printed({"--qor-memcheck=" + m_path});
    // A new log replaces the old one.
    const std::string second = read_file(m_path);
    EXPECT_EQ(second.find("# ", 1), std::string::npos) << second;
}

TEST_F(framework_options, files_that_cannot_be_written_are_errors) {
    const std::string folder = m_folder / "";
    const std::string beyond = m_folder / "no/file";
    const qor::test::reasons reasons = qor::test::system_reasons();
    for (const char* const name : {"--qor-memcheck", "--qor-debug-file"}) {
        expect_error({std::string(name) + '=' + beyond}, {},
                     "23 The file that '" + std::string(name) + "' names cannot be written: '" + beyond +
                         "': " + reasons.no_folder + ".");
        expect_error({std::string(name) + '=' + folder}, {},
                     "23 The file that '" + std::string(name) + "' names cannot be written: '" + folder +
                         "': " + reasons.a_folder + ".");
    }
    expect_error({}, {"QOR_MEMCHECK=" + beyond},
                 "23 The file that 'QOR_MEMCHECK' names cannot be written: '" + beyond + "': " + reasons.no_folder +
                     ".");
    expect_error({}, {"QOR_DEBUG_FILE=" + beyond},
                 "23 The file that 'QOR_DEBUG_FILE' names cannot be written: '" + beyond + "': " + reasons.no_folder +
                     ".");
}

TEST_F(framework_options, a_value_that_is_no_language_is_an_error) {
    expect_error({"--qor-language=!!"}, {},
                 "22 The value '!!' of '--qor-language' is invalid: '!!' is not a language name.");
    expect_error({}, {"QOR_LANGUAGE=!!"},
                 "22 The value '!!' of 'QOR_LANGUAGE' is invalid: '!!' is not a language name.");
}

TEST_F(framework_options, can_come_from_the_environment) {
    const std::string trace = m_folder / "trace";
    const std::string log = m_folder / "log";
    EXPECT_EQ(printed({"word"}, {"QOR_DEBUG=a.*", "QOR_DEBUG_FILE=" + trace, "QOR_MEMCHECK=" + log, "QOR_LANGUAGE=de"}),
              "[word] de en a.one a.two");
    EXPECT_TRUE(read_file(trace).ends_with(" a.one traced\n"));
    EXPECT_TRUE(read_file(log).starts_with("# "));
}

TEST_F(framework_options, the_command_line_beats_the_environment) {
    EXPECT_EQ(printed({"--qor-language=fr", "--qor-debug=b.one"}, {"QOR_LANGUAGE=de", "QOR_DEBUG=a.*"}),
              " fr en b.one");
    const std::string other = m_folder / "other";
    printed({"--qor-memcheck=" + m_path}, {"QOR_MEMCHECK=" + other});
    EXPECT_TRUE(std::filesystem::exists(m_path));
    EXPECT_FALSE(std::filesystem::exists(other));
    printed({"--qor-memcheck=" + m_path}, {"QOR_MEMCHECK=" + (m_folder / "no/file")});
}

TEST_F(framework_options, an_empty_variable_is_unset) {
    EXPECT_EQ(printed({}, {"QOR_DEBUG=", "QOR_DEBUG_FILE=", "QOR_MEMCHECK=", "QOR_LANGUAGE="}), " en");
}

TEST_F(framework_options, an_error_is_in_the_language_that_was_asked_for) {
    const std::string path = m_folder / "no/file";
    const std::string option = "--qor-memcheck=" + path;
    const ending english = play(start, {option});
    const ending german = play(start, {option, "--qor-language=de"});
    EXPECT_TRUE(german.out.starts_with("23 ")) << german.out;
    EXPECT_NE(german.out.find(path), std::string::npos) << german.out;
    EXPECT_NE(german.out, english.out);
}
