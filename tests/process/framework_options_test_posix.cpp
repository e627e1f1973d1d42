// A program that runs with another user's rights: the options of the framework, and the time zone.
#include "support/scenes.h"
#include "support/temp_folder.h"
#include "time/zone_name.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <sys/auxv.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using qor::test::ending;
using qor::test::scene;
using qor::test::temp_folder;
using qor::test::words;

const scene at_secure{"options_at_secure", [](const words&) { return getauxval(AT_SECURE) != 0 ? 0 : 1; }};

// Prints one digit for each word: whether it names a zone.
const scene zones{"options_zones", [](const words& names) {
                      for (const std::string& each : names)
                          std::printf("%d", qor::time::is_zone(each.c_str()) ? 1 : 0);
                      return 0;
                  }};

class privileged_options : public testing::Test {
protected:
    void SetUp() override {
        constexpr uid_t nobody = 65534;
        if (geteuid() != 0)
            GTEST_SKIP() << "only root can make a program run as another user";
        std::filesystem::copy_file(qor::test::this_program(), m_program);
        // That user could write the files.
        ASSERT_EQ(chown(m_folder.path().c_str(), nobody, nobody), 0);
        ASSERT_EQ(chown(m_program.c_str(), nobody, nobody), 0);
        ASSERT_EQ(chmod(m_folder.path().c_str(), 0755), 0);
        ASSERT_EQ(chmod(m_program.c_str(), 04755), 0);
        if (run("options_at_secure", {}).code != 0)
            GTEST_SKIP() << "the file system of " << m_program << " leaves set-user-id bits alone";
    }

    // A process that cannot be traced cannot search for leaks either.
    ending run(const char* scene_name, const words& arguments, words environment = {}) const {
        words command{m_program, "--scene", scene_name};
        command.insert(command.end(), arguments.begin(), arguments.end());
        environment.push_back("ASAN_OPTIONS=detect_leaks=0");
        return qor::test::run(command, environment);
    }

    // Expects that the folder contains only the program.
    void expect_nothing_done(const ending& ended) const {
        EXPECT_EQ(ended.code, 0) << ended.out << ended.err;
        EXPECT_EQ(ended.out, "[word] en");
        EXPECT_EQ(ended.err, "");
        for (const auto& each : std::filesystem::directory_iterator(m_folder.path()))
            EXPECT_EQ(each.path(), m_program);
    }

    const temp_folder m_folder;
    const std::string m_program = m_folder / "program";
    const std::string m_file = m_folder / "file";
};

class privileged_zones : public privileged_options {};

} // namespace

TEST_F(privileged_options, of_the_command_line_are_taken_out_and_do_nothing) {
    expect_nothing_done(run("options_start", {"--qor-debug-file=" + m_file, "--qor-debug=*", "--qor-language=de",
                                              "word", "--qor-memcheck=" + m_file + ".log", "--qor-debug-listen=1x",
                                              "--qor-debug-users=" + m_file}));
}

TEST_F(privileged_options, of_the_environment_do_nothing) {
    expect_nothing_done(run("options_start", {"word"},
                            {"QOR_DEBUG_FILE=" + m_file, "QOR_DEBUG=*", "QOR_LANGUAGE=de", "LANGUAGE=de",
                             "QOR_MEMCHECK=" + m_file + ".log", "QOR_DEBUG_LISTEN=1x", "QOR_DEBUG_USERS=" + m_file}));
}

TEST_F(privileged_options, that_there_are_not_are_errors_still) {
    const ending ended = run("options_start", {"--qor-nosuch"});
    EXPECT_EQ(ended.code, 1);
    EXPECT_TRUE(ended.out.starts_with("20 ")) << ended.out;
}

// A privileged program must not open files for its user that he may not open himself.
TEST_F(privileged_zones, are_those_of_the_database) {
    const std::string database = "/usr/share/zoneinfo/";
    const std::string copy = m_folder / "zone";
    std::filesystem::copy_file(database + "Europe/Berlin", copy);
    const words names{"Europe/Berlin",   database + "Europe/Berlin",  "CET-1CEST", copy, ':' + copy,
                      "../../.." + copy, database + "../../.." + copy};
    EXPECT_EQ(qor::test::play(zones, names).out, "1111111");
    EXPECT_EQ(run("options_zones", names).out, "1110000");
    EXPECT_EQ(run("options_zones", {"zone"}, {"TZDIR=" + m_folder.path()}).out, "0");
}
