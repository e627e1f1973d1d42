// Floods: more lines than are written one by one. No line may be lost, however the process ends.
#include "trace_flood.h"

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <thread>

using namespace qor::test;
using namespace qor::test::flood;

namespace {

const scene orderly{"flood_orderly", [](const words& arguments) {
                        start(arguments[0]);
                        trace(lines);
                        return 0;
                    }};

// Nobody closes the file.
const scene exiting{"flood_exiting", [](const words& arguments) {
                        start(arguments[0]);
                        trace(lines);
                        std::exit(0);
                        return 0;
                    }};

const scene killed{"flood_killed", [](const words& arguments) {
                       start(arguments[0]);
                       trace(lines);
                       qor::test::kill_process();
                       return 0;
                   }};

const scene idle{"flood_idle", [](const words& arguments) {
                     start(arguments[0]);
                     trace(lines);
                     while (qor::test::read_file(arguments[0]).find(" line " + std::to_string(lines - 1) + "\n") ==
                            std::string::npos)
                         std::this_thread::sleep_for(std::chrono::milliseconds(1));
                     return 0;
                 }};

// A single line is in the file at once, and so are the first lines of a flood.
const scene prompt{"flood_prompt", [](const words& arguments) {
                       start(arguments[0]);
                       for (int i = 0; i < 30; ++i) {
                           trace(1);
                           EXPECT_EQ(bodies(qor::test::read_file(arguments[0])).size(),
                                     static_cast<std::size_t>(i + 1));
                       }
                       return 0;
                   }};

const scene moved{"flood_moved", [](const words& arguments) {
                      std::filesystem::current_path(arguments[0]);
                      start("trace");
                      std::filesystem::current_path("elsewhere");
                      trace(lines);
                      qor::test::kill_process();
                      return 0;
                  }};

const scene long_lines{"flood_long_lines", [](const words& arguments) {
                           start(arguments[0]);
                           for (const std::size_t length : {10u, 65'400u, 65'536u, 10u, 70'000u, 10u})
                               for (int i = 0; i < 60; ++i)
                                   qorDebug(code(), "%s", std::string(length, 'x').c_str());
                           return 0;
                       }};

// A killed process with the same number has left a file.
const scene taken{"flood_taken", [](const words& arguments) {
                      const std::string rest = arguments[0] + '.' + qor::test::process_id() + ".rest";
                      std::ofstream(rest) << "of another";
                      start(arguments[0]);
                      trace(lines);
                      EXPECT_TRUE(std::filesystem::exists(rest + ".2"));
                      EXPECT_TRUE(qorDebugAttachFile(nullptr));
                      EXPECT_FALSE(std::filesystem::exists(rest + ".2"));
                      EXPECT_EQ(qor::test::read_file(rest), "of another");
                      std::filesystem::remove(rest);
                      return 0;
                  }};

const scene threads{"flood_threads", [](const words& arguments) {
                        start(arguments[0]);
                        std::vector<std::thread> all;
                        for (int thread = 0; thread < 4; ++thread)
                            all.emplace_back([thread] {
                                for (int i = 0; i < lines; ++i)
                                    qorDebug(code(), "thread %d line %d", thread, i);
                            });
                        for (int i = 0; i < 200; ++i) {
                            qorDebugEnableCode("flood.other*", i % 2 == 0);
                            qorDebug(qorDebugAllocateCode(("flood.other" + std::to_string(i)).c_str()),
                                     "thread 9 line 0");
                        }
                        for (std::thread& each : all)
                            each.join();
                        return 0;
                    }};

} // namespace

TEST_F(trace_flood, is_in_the_file_when_the_process_has_ended) {
    for (const scene* const each : {&orderly, &exiting}) {
        EXPECT_EQ(play(*each, {m_path}).code, 0);
        EXPECT_EQ(bodies(read_file(m_path)), expected());
        EXPECT_EQ(rests(m_folder.path()), words{});
        std::filesystem::remove(m_path);
    }
}

TEST_F(trace_flood, of_a_killed_process_lies_in_the_file_and_its_rest) {
    EXPECT_EQ(play(killed, {m_path}).code, qor::test::killed_code);
    EXPECT_EQ(all_bodies(m_folder.path()), expected());
    EXPECT_EQ(rests(m_folder.path()).size(), 1u);
}

TEST_F(trace_flood, is_in_the_file_soon_without_another_line) { EXPECT_EQ(play(idle, {m_path}).code, 0); }

TEST_F(trace_flood, begins_with_lines_that_are_there_at_once) { EXPECT_EQ(play(prompt, {m_path}).code, 0); }

TEST_F(trace_flood, keeps_its_rest_beside_the_file) {
    std::filesystem::create_directory(m_folder / "elsewhere");
    EXPECT_EQ(play(moved, {m_folder.path()}).code, qor::test::killed_code);
    EXPECT_EQ(all_bodies(m_folder.path()), expected());
    EXPECT_EQ(rests(m_folder.path()).size(), 1u);
}

TEST_F(trace_flood, has_lines_of_any_length) {
    EXPECT_EQ(play(long_lines, {m_path}).code, 0);
    words expected;
    for (const std::size_t length : {10u, 65'400u, 65'536u, 10u, 70'000u, 10u})
        expected.insert(expected.end(), 60, "flood " + std::string(length, 'x'));
    EXPECT_TRUE(bodies(read_file(m_path)) == expected); // too long to be shown
}

TEST_F(trace_flood, leaves_alone_what_another_process_left) {
    const qor::test::ending ended = play(taken, {m_path});
    EXPECT_EQ(ended.code, 0) << ended.out;
    EXPECT_EQ(bodies(read_file(m_path)), expected());
}

TEST_F(trace_flood, of_many_threads_is_whole) {
    EXPECT_EQ(play(threads, {m_path}).code, 0);
    std::vector<int> next(10);
    for (const std::string& body : bodies(read_file(m_path))) {
        int thread = 0;
        int line = 0;
        int end = 0;
        const std::string rest = body.substr(std::min(body.find(' '), body.size()));
        ASSERT_EQ(std::sscanf(rest.c_str(), " thread %d line %d%n", &thread, &line, &end), 2) << body;
        ASSERT_EQ(static_cast<std::size_t>(end), rest.size());
        if (thread == 9)
            continue;
        ASSERT_EQ(line, next.at(static_cast<std::size_t>(thread))++);
    }
    EXPECT_EQ(std::vector<int>(next.begin(), next.begin() + 4), std::vector<int>(4, lines));
}
