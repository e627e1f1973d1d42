#include "allocation_log_support.h"
#include "support/platform.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <thread>

namespace qor::test::log {

// ---------------------------------------------------------------- contents

namespace {

const scene plain{"log_plain", [](const words& arguments) {
                      start(arguments[0]);
                      void* const block = qor_do_malloc(0, 48, true, here, 1);
                      void* const aligned = qor_do_malloc(256, 0, true, here, 2);
                      char* const text = qor_do_strdup("text", here, 3);
                      qor_do_free(block, "another/file", 99);
                      qor_do_free(aligned, here, 99);
                      qor_do_free(nullptr, here, 99);
                      qor_do_free(text, here, 99);
                      void* const copy = qor_do_memdup("1234567", 7, here, 4);
                      char* const part = qor_do_strndup("text", 2, here, -5);
                      qor_do_free(copy, here, 99);
                      qor_do_free(part, here, 99);
                      return 0;
                  }};

const scene before_the_start{"log_before_the_start", [](const words& arguments) {
                                 void* const first = qor_do_malloc(0, 10, true, here, 1);
                                 thing* const object = new (here, 2) thing("before");
                                 void* const gone = qor_do_malloc(0, 30, true, here, 3);
                                 void* const huge = qor_do_huge_alloc(40, here, 4);
                                 void* grown = qor_do_malloc(0, 50, true, here, 5);
                                 void* const last = qor_do_malloc(0, 60, true, here, 6);
                                 qor_do_free(gone, here, 99);
                                 grown = qor_do_realloc(grown, 70, here, 7);
                                 start(arguments[0]);
                                 void* const after = qor_do_malloc(0, 80, true, here, 8);
                                 qor_do_free(last, here, 99);
                                 qor_do_huge_free(huge, here, 99);
                                 object->Release();
                                 qor_do_free(grown, here, 99);
                                 qor_do_free(first, here, 99);
                                 qor_do_free(after, here, 99);
                                 return 0;
                             }};

const scene objects{"log_objects", [](const words& arguments) {
                        start(arguments[0]);
                        thing* const object = new (here, 1) thing("a.name");
                        object->AddRef();
                        object->Release();
                        object->Release();
                        thing* const nameless = new (here, 2) thing(nullptr);
                        nameless->Release();
                        // The address is not the start of a block, so no block gets the name.
                        const int on_the_stack = 0;
                        qor::glue::qorAnnounceObject(&on_the_stack, "stack");
                        return 0;
                    }};

const scene odd_names{"log_odd_names", [](const words& arguments) {
                          start(arguments[0]);
                          (new ("here is\twhite\nspace\x01", 1) thing(" a\v\f\rname "))->Release();
                          (new ("here\xc3\xa4", 2) thing("na\xc3\xafve<int, char>"))->Release();
                          (new ("here", 3) thing(""))->Release();
                          qor_do_free(qor_do_malloc(0, 4, true, nullptr, 4), here, 99);
                          qor_do_free(qor_do_malloc(0, 5, true, "", 5), here, 99);
                          const std::string longest = here + std::string(200'000, 'x');
                          qor_do_free(qor_do_malloc(0, 6, true, longest.c_str(), 6), here, 99);
                          return 0;
                      }};

const scene reallocation{"log_reallocation", [](const words& arguments) {
                             start(arguments[0]);
                             void* block = qor_do_realloc(nullptr, 10, here, 1);
                             block = qor_do_realloc(block, 8, here, 2);
                             block = qor_do_realloc(block, 0, here, 6);
                             block = qor_do_realloc(block, 1 << 20, here, 3);
                             EXPECT_THROW((void)qor_do_realloc(block, too_much, here, 4), std::bad_alloc);
                             EXPECT_THROW((void)qor_do_malloc(0, too_much, true, here, 5), std::bad_alloc);
                             qor_do_free(block, here, 99);
                             return 0;
                         }};

const scene huge{"log_huge", [](const words& arguments) {
                     start(arguments[0]);
                     void* const block = qor_do_huge_alloc(100'000, here, 1);
                     EXPECT_THROW((void)qor_do_huge_alloc(too_much, here, 2), std::bad_alloc);
                     qor_do_huge_free(block, here, 99);
                     qor_do_huge_free(block, here, 99);
                     return 0;
                 }};

// Frees a block by the operation for the other kind, then by the right one.
const scene wrong_frees{"log_wrong_frees", [](const words& arguments) {
                            start(arguments[0]);
                            void* const block = qor_do_malloc(0, 10, true, here, 1);
                            void* const pages = qor_do_huge_alloc(20, here, 2);
                            qor_do_huge_free(block, here, 99);
                            qor_do_free(pages, here, 99);
                            std::memset(block, 0, 10);
                            std::memset(pages, 0, 20);
                            qor_do_free(block, here, 99);
                            qor_do_huge_free(pages, here, 99);
                            return 0;
                        }};

const scene bad_frees{"log_bad_frees", [](const words& arguments) {
                          start(arguments[0]);
                          void* const block = qor_do_malloc(0, 10, true, here, 1);
                          qor_do_free(block, here, 99);
                          qor_do_free(block, here, 99);
                          int stranger = 0;
                          qor_do_free(&stranger, here, 99);
                          qor_do_huge_free(&stranger, here, 99);
                          qor::glue::qor_do_delete(&stranger);
                          void* const fresh = qor_do_realloc(&stranger, 20, here, 2);
                          std::memset(fresh, 0, 20);
                          qor_do_free(fresh, here, 99);
                          return 0;
                      }};

} // namespace

TEST_F(allocation_log, begins_with_a_comment_that_names_the_process) {
    play_scene(plain);
    EXPECT_GT(std::stoi(process_of(read_file(m_path))), 1);
}

TEST_F(allocation_log, plain_blocks) {
    EXPECT_EQ(story_of(plain).events, (events{"A 1 48 0", "A 2 0 0", "A 3 5 0", "F 1 0", "F 2 0", "F 3 0", "A 4 7 0",
                                              "A -5 3 0", "F 4 0", "F -5 0"}));
}

TEST_F(allocation_log, blocks_from_before_the_start_come_first_in_their_order) {
    EXPECT_EQ(story_of(before_the_start).events,
              (events{"A 1 10 0", "A 2 " + std::to_string(sizeof(thing)) + " 1", "T 2 before", "A 4 40 3", "A 6 60 0",
                      "A 7 70 0", "A 8 80 0", "F 6 0", "F 4 3", "F 2 1", "F 7 0", "F 1 0", "F 8 0"}));
}

TEST_F(allocation_log, objects_say_what_they_are) {
    const std::string size = std::to_string(sizeof(thing));
    EXPECT_EQ(story_of(objects).events,
              (events{"A 1 " + size + " 1", "T 1 a.name", "F 1 1", "A 2 " + size + " 1", "F 2 1"}));
}

TEST_F(allocation_log, names_hold_no_white_space) {
    const std::string size = std::to_string(sizeof(thing));
    EXPECT_EQ(story_of(odd_names).events,
              (events{"A 1 " + size + " 1", "T 1 _a___name_", "F 1 1", "A 2 " + size + " 1",
                      "T 2 na\xc3\xafve<int,_char>", "F 2 1", "A 3 " + size + " 1", "F 3 1", "A 6 6 0", "F 6 0"}));
    const std::string log = read_file(m_path);
    EXPECT_NE(log.find(" here_is_white_space_ 1\n"), std::string::npos);
    EXPECT_NE(log.find(" 4 0\n"), std::string::npos);
    EXPECT_NE(log.find(" 5 0\n"), std::string::npos);
    EXPECT_EQ(replay(m_path), "No leaks found\n");
}

TEST_F(allocation_log, a_reallocation_is_an_end_and_a_beginning) {
    const ending ended = play(reallocation, {m_path},
                              {"ASAN_OPTIONS=allocator_may_return_null=1", "TSAN_OPTIONS=allocator_may_return_null=1"});
    EXPECT_EQ(ended.code, 0) << ended.out << ended.err;
    EXPECT_EQ(tell(read_file(m_path)).events,
              (events{"A 1 10 0", "F 1 0", "A 2 8 0", "F 2 0", "A 6 0 0", "F 6 0", "A 3 1048576 0",
                      // A block that could not grow is unchanged.
                      "F 3 0", "A 3 1048576 0", "F 3 0"}));
}

TEST_F(allocation_log, huge_blocks_have_a_type_of_their_own) {
    EXPECT_EQ(story_of(huge).events, (events{"A 1 100000 3", "F 1 3", "F ? 3"}));
}

TEST_F(allocation_log, a_bad_free_is_written_and_goes_no_further) {
    EXPECT_EQ(story_of(bad_frees).events,
              (events{"A 1 10 0", "F 1 0", "F ? 0", "F ? 0", "F ? 3", "F ? 1", "F ? 0", "A 2 20 0", "F 2 0"}));
    const std::string report = replay(m_path);
    EXPECT_EQ(std::count(report.begin(), report.end(), '\n'), 6) << report;
    EXPECT_EQ(report.find("LEAK"), std::string::npos) << report;
    EXPECT_TRUE(report.ends_with("No leaks found\n")) << report;
}

TEST_F(allocation_log, a_block_of_the_other_kind_is_not_given_back) {
    const story told = story_of(wrong_frees);
    EXPECT_EQ(told.events, (events{"A 1 10 0", "A 2 20 3", "F 1 0", "F 2 3", "F ? 0", "F ? 3"}));
    EXPECT_EQ(told.leaks, events{});
}

// ---------------------------------------------------------------- start

namespace {

void initialise(const words& arguments) {
    qorStringArray args;
    args.Append("program");
    for (const std::string& word : arguments)
        args.Append(word.c_str());
    EXPECT_TRUE(qorInitProcess("program", args, 0));
}

// The framework is used, but never started.
const scene never_started{"log_never_started", [](const words&) {
                              qor_do_free(qor_do_malloc(0, 10, true, here, 1), here, 99);
                              return 0;
                          }};

const scene started{"log_started", [](const words& arguments) {
                        void* const early = qor_do_malloc(0, 10, true, here, 1);
                        initialise(arguments);
                        qor_do_free(early, here, 99);
                        qor_do_free(qor_do_malloc(0, 20, true, here, 2), here, 99);
                        return 0;
                    }};

// Blocks that are forgotten by then, or were never recorded, are freed as without a log.
const scene late_start{"log_late_start", [](const words& arguments) {
                           void* const early = qor_do_malloc(0, 10, true, here, 1);
                           if (arguments[1] == "after a start without")
                               initialise({});
                           else
                               for (int i = 0; i < 1 << 20; ++i)
                                   qor_do_free(qor_do_malloc(0, 1, true, "elsewhere", 1), here, 99);
                           start(arguments[0]);
                           qor_do_free(early, here, 99);
                           qor_do_free(qor_do_malloc(0, 20, true, here, 2), here, 99);
                           return 0;
                       }};

// Starts this program again, without telling it about a log.
const scene starts_another{
    "log_starts_another", [](const words& arguments) {
        qor_do_free(qor_do_malloc(0, 10, true, here, 1), here, 99);
        if (arguments.empty()) {
            EXPECT_EQ(std::system(('"' + this_program() + "\" --scene log_starts_another again").c_str()), 0);
            qor_do_free(qor_do_malloc(0, 20, true, here, 2), here, 99);
        }
        return 0;
    }};

} // namespace

TEST_F(allocation_log, the_environment_asks_for_one_with_the_first_block) {
    for (const scene* each : {&never_started, &started}) {
        const ending ended = play(*each, {}, {"QOR_MEMCHECK=" + m_path});
        EXPECT_EQ(ended.code, 0) << ended.out << ended.err;
        EXPECT_EQ(ended.err, "");
        events expected{"A 1 10 0", "F 1 0"};
        if (each == &started)
            expected.insert(expected.end(), {"A 2 20 0", "F 2 0"});
        EXPECT_EQ(tell(read_file(m_path)).events, expected);
    }
}

TEST_F(allocation_log, the_command_line_beats_the_environment) {
    const ending ended = play(started, {"--qor-memcheck=" + m_path}, {"QOR_MEMCHECK=" + m_path + ".other"});
    EXPECT_EQ(ended.code, 0) << ended.out << ended.err;
    EXPECT_EQ(tell(read_file(m_path)).events, (events{"A 1 10 0", "F 1 0", "A 2 20 0", "F 2 0"}));
    EXPECT_FALSE(std::filesystem::exists(m_path + ".other"));
}

TEST_F(allocation_log, a_late_one_knows_nothing_of_earlier_blocks) {
    for (const char* const when : {"after a start without", "after very many blocks"}) {
        const ending ended = play(late_start, {m_path, when});
        EXPECT_EQ(ended.code, 0) << ended.out << ended.err;
        EXPECT_EQ(ended.err, "");
        EXPECT_EQ(tell(read_file(m_path)).events, (events{"A 2 20 0", "F 2 0"})) << when;
    }
}

TEST_F(allocation_log, a_program_that_is_started_does_not_write_over_it) {
    const ending ended = play(starts_another, {}, {"QOR_MEMCHECK=" + m_path});
    EXPECT_EQ(ended.code, 0) << ended.out << ended.err;
    EXPECT_EQ(tell(read_file(m_path)).events, (events{"A 1 10 0", "F 1 0", "A 2 20 0", "F 2 0"}));
    const words children = logs_of_children(m_path);
    ASSERT_EQ(children.size(), 1u);
    const std::string log = read_file(children[0]);
    EXPECT_EQ(tell(log).events, (events{"A 1 10 0", "F 1 0"}));
    EXPECT_EQ(children[0], m_path + '.' + process_of(log));
}

TEST_F(allocation_log, a_name_may_hold_the_process) {
    const std::string path = m_folder / "of.%p.log";
    for (int run = 0; run < 2; ++run) {
        const ending ended = play(never_started, {}, {"QOR_MEMCHECK=" + path});
        EXPECT_EQ(ended.code, 0) << ended.out << ended.err;
    }
    const words logs = logs_of_children(path);
    ASSERT_EQ(logs.size(), 2u);
    for (const std::string& each : logs)
        EXPECT_EQ(each, m_folder / ("of." + process_of(read_file(each)) + ".log"));
}

// ---------------------------------------------------------------- end of the process

namespace {

// The second argument is the way to end.
const scene end{"log_end", [](const words& arguments) {
                    // Registered before the log's own handler, so it runs after that.
                    std::atexit(free_late);
                    start(arguments[0]);
                    allocate_late();
                    for (int i = 0; i < 5000; ++i)
                        qor_do_free(qor_do_malloc(0, 1, true, "elsewhere", i), here, 99);
                    if (arguments[1] == "cleanup")
                        qorCleanup();
                    if (arguments[1] == "exit")
                        std::exit(0);
                    return 0;
                }};

} // namespace

TEST_F(allocation_log, is_whole_however_the_process_ends) {
    for (const char* const way : {"return", "exit", "cleanup"}) {
        const ending ended = play(end, {m_path, way});
        EXPECT_EQ(ended.code, 0) << ended.out << ended.err;
        const story told = tell(read_file(m_path));
        EXPECT_EQ(told.events, late_events) << way;
        EXPECT_EQ(told.leaks, events{}) << way;
        EXPECT_EQ(replay(m_path), "No leaks found\n");
    }
}

// ---------------------------------------------------------------- replay

namespace {

const scene leaks{"log_leaks", [](const words& arguments) -> int {
                      start(arguments[0]);
                      static void* const kept[] = {qor_do_malloc(0, 48, true, "here/there", 120),
                                                   new ("here/object", 55) thing("a.type")};
                      return kept[0] == nullptr;
                  }};

} // namespace

TEST_F(allocation_log, the_tool_shows_leaks_with_source_and_type) {
    const ending ended = play_scene(leaks);
    EXPECT_EQ(ended.code, 0) << ended.out << ended.err;
    const std::string report = replay(m_path);
    EXPECT_NE(report.find("here/there"), std::string::npos) << report;
    EXPECT_NE(report.find("120"), std::string::npos) << report;
    EXPECT_NE(report.find("here/object"), std::string::npos) << report;
    EXPECT_NE(report.find("a.type"), std::string::npos) << report;
    EXPECT_EQ(report.find("BAD FREE"), std::string::npos) << report;
}

TEST_F(allocation_log, the_tool_itself_is_clean) {
    const ending ended = qor::test::run({QOR_TOOL, "--qor-memcheck=" + m_path, "help"});
    EXPECT_EQ(ended.code, 1);
    EXPECT_EQ(replay(m_path), "No leaks found\n");
    const story told = tell(read_file(m_path));
    EXPECT_EQ(told.events, events{});
    EXPECT_EQ(told.leaks, events{});
}

// ---------------------------------------------------------------- threads

namespace {

const scene threads{"log_threads", [](const words& arguments) {
                        std::vector<std::thread> workers;
                        // Some threads are already working when the log begins.
                        for (unsigned i = 0; i < 4; ++i)
                            workers.emplace_back(work, i, 2000);
                        start(arguments[0]);
                        for (unsigned i = 4; i < 8; ++i)
                            workers.emplace_back(work, i, 2000);
                        for (std::thread& each : workers)
                            each.join();
                        return 0;
                    }};

} // namespace

TEST_F(allocation_log, lines_of_many_threads_are_whole_and_in_order) {
    const story told = story_of(threads);
    EXPECT_EQ(told.events, events{});
    EXPECT_EQ(told.leaks, events{});
    EXPECT_EQ(replay(m_path), "No leaks found\n");
}

// ---------------------------------------------------------------- a process that is killed

namespace {

const scene killed{"log_killed", [](const words& arguments) {
                       start(arguments[0]);
                       for (int i = 0; i < 20'000; ++i)
                           (void)qor_do_malloc(0, 1, true, here, 1);
                       qor::test::kill_process();
                       return 0;
                   }};

} // namespace

TEST_F(allocation_log, little_is_lost_when_the_process_is_killed) {
    EXPECT_EQ(play_scene(killed).code, qor::test::killed_code);
    const std::string log = read_file(m_path);
    const story told = tell(log);
    const std::size_t line = log.size() - 1 - log.rfind('\n', log.size() - 2);
    EXPECT_GT(told.events.size(), 20'000 - 4096 / line - 1);
    EXPECT_LT(told.events.size(), 20'000u);
}

// ---------------------------------------------------------------- a log that cannot be written

namespace {

// So few allocations that the log is written only at the end.
const scene little_work{"log_little_work", [](const words& arguments) {
                            start(arguments[0]);
                            work(1, 20);
                            return 0;
                        }};

} // namespace

const scene much_work{"log_much_work", [](const words& arguments) {
                          start(arguments[0]);
                          work(1, 20'000);
                          return 0;
                      }};

TEST_F(allocation_log, a_full_disk_ends_the_log_and_not_the_process) {
    QOR_NEEDS_FULL_DISK();
    const std::string full = qor::test::full_disk;
    for (const scene* each : {&much_work, &little_work}) {
        const ending ended = play(*each, {full});
        EXPECT_EQ(ended.code, 0) << ended.out;
        EXPECT_EQ(ended.err,
                  "program: the allocation log '" + full + "' ends here: " + qor::test::system_reasons().full + "\n");
    }
}

} // namespace qor::test::log
