// The allocation log with forks and file limits.
#include "allocation_log_support.h"

#include <cstdlib>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace qor::test::log {

using posix_allocation_log = allocation_log;

// ---------------------------------------------------------------- forks

namespace {

// Returns the exit code of a child that runs `act` and exits as a program does.
template <class ACT>
int in_child(ACT act, pid_t* process = nullptr) {
    const pid_t child = fork();
    if (child == 0)
        std::exit(act());
    if (process != nullptr)
        *process = child;
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

void* s_block;

const scene forks{
    "log_forks", [](const words& arguments) {
        start(arguments[0]);
        s_block = qor_do_malloc(0, 10, true, here, 1);
        s_object = new (here, 2) thing("of.the.parent");
        qor_do_free(qor_do_malloc(0, 30, true, here, 3), here, 99);
        pid_t child = 0;
        EXPECT_EQ(in_child(
                      [] {
                          qor_do_free(s_block, here, 99);
                          s_object->Release();
                          qor_do_free(qor_do_malloc(0, 40, true, here, 4), here, 99);
                          return 0;
                      },
                      &child),
                  0);
        EXPECT_EQ(rename((arguments[0] + '.' + std::to_string(child)).c_str(), (arguments[0] + ".child").c_str()), 0);
        qor_do_free(s_block, here, 99);
        qor_do_free(qor_do_malloc(0, 50, true, here, 5), here, 99);
        s_object->Release();
        return 0;
    }};

// Without an argument, there is no log: the framework has not been started.
const scene forks_between_threads{
    "log_forks_between_threads", [](const words& arguments) {
        if (!arguments.empty())
            start(arguments[0]);
        std::vector<std::thread> workers;
        for (unsigned i = 0; i < 2; ++i)
            workers.emplace_back(work, i, 20'000);
        for (int i = arguments.empty() ? 200 : 20; i > 0; --i)
            EXPECT_EQ(in_child([] {
                          alarm(30); // instead of waiting forever for a lock that nobody releases
                          work(7, 50);
                          return 0;
                      }),
                      0);
        for (std::thread& each : workers)
            each.join();
        return 0;
    }};

const scene fork_without_folder{"log_fork_without_folder", [](const words& arguments) {
                                    start(arguments[0]);
                                    const std::string folder = arguments[0].substr(0, arguments[0].rfind('/'));
                                    EXPECT_EQ(rename(folder.c_str(), (folder + ".moved").c_str()), 0);
                                    pid_t child = 0;
                                    EXPECT_EQ(in_child(
                                                  [] {
                                                      work(7, 50);
                                                      return 0;
                                                  },
                                                  &child),
                                              0);
                                    EXPECT_EQ(rename((folder + ".moved").c_str(), folder.c_str()), 0);
                                    qor_do_free(qor_do_malloc(0, 10, true, here, 1), here, 99);
                                    std::printf("%d", child);
                                    return 0;
                                }};

const scene quick_child{"log_quick_child", [](const words& arguments) {
                            start(arguments[0]);
                            s_block = qor_do_malloc(0, 10, true, here, 1);
                            const pid_t child = fork();
                            if (child == 0)
                                _exit(0);
                            waitpid(child, nullptr, 0);
                            return 0;
                        }};

// The blocks of each generation stay reachable; otherwise a sanitizer would report them.
void* volatile s_generations[3];

const scene three_generations{"log_three_generations", [](const words& arguments) {
                                  start(arguments[0]);
                                  s_generations[0] = qor_do_malloc(0, 10, true, here, 1);
                                  EXPECT_EQ(in_child([] {
                                                s_generations[1] = qor_do_malloc(0, 20, true, here, 2);
                                                return in_child([] {
                                                    s_generations[2] = qor_do_malloc(0, 30, true, here, 3);
                                                    return 0;
                                                });
                                            }),
                                            0);
                                  return 0;
                              }};

// Replaces itself by the same program, twice.
const scene replaced{"log_replaced", [](const words& arguments) {
                         qor_do_free(qor_do_malloc(0, 10, true, here, 1), here, 99);
                         if (arguments.size() < 3) {
                             const std::string self = this_program();
                             execl(self.c_str(), self.c_str(), "--scene", "log_replaced", "again", arguments[0].c_str(),
                                   arguments.size() == 2 ? "last" : nullptr, nullptr);
                         }
                         return 0;
                     }};

const scene fork_at_the_end{"log_fork_at_the_end", [](const words& arguments) {
                                std::atexit([] {
                                    if (fork() == 0)
                                        free_late();
                                    else
                                        wait(nullptr);
                                });
                                start(arguments[0]);
                                allocate_late();
                                return 0;
                            }};

} // namespace

TEST_F(posix_allocation_log, a_child_goes_on_in_a_file_of_its_own) {
    const std::string size = std::to_string(sizeof(thing));
    EXPECT_EQ(story_of(forks).events, (events{"A 1 10 0", "A 2 " + size + " 1", "T 2 of.the.parent", "A 3 30 0",
                                              "F 3 0", "F 1 0", "A 5 50 0", "F 5 0", "F 2 1"}));
    const std::string log = read_file(m_path + ".child");
    EXPECT_EQ(tell(log).events,
              (events{"A 1 10 0", "A 2 " + size + " 1", "T 2 of.the.parent", "F 1 0", "F 2 1", "A 4 40 0", "F 4 0"}));
    EXPECT_NE(log.substr(0, log.find('\n')), read_file(m_path).substr(0, log.find('\n')));
    EXPECT_EQ(replay(m_path), "No leaks found\n");
}

// The address sanitizer's allocator does not release its own locks in a child.
#if !defined(__SANITIZE_ADDRESS__)
TEST_F(posix_allocation_log, children_are_forked_while_other_threads_allocate) {
    // A child lacks the threads that would free their blocks, which the sanitizers do not know.
    const ending ended =
        play(forks_between_threads, {m_path}, {"ASAN_OPTIONS=detect_leaks=0", "TSAN_OPTIONS=report_thread_leaks=0"});
    EXPECT_EQ(ended.code, 0) << ended.out << ended.err;
    EXPECT_EQ(ended.err, "");
    const story told = tell(read_file(m_path));
    EXPECT_EQ(told.events, events{});
    EXPECT_EQ(told.leaks, events{});
    const std::vector<std::string> children = logs_of_children(m_path);
    EXPECT_EQ(children.size(), 20u);
    for (const std::string& path : children)
        EXPECT_EQ(tell(read_file(path)).events, events{});
}

TEST_F(posix_allocation_log, children_are_forked_while_other_threads_allocate_without_a_log) {
    const ending ended =
        play(forks_between_threads, {}, {"ASAN_OPTIONS=detect_leaks=0", "TSAN_OPTIONS=report_thread_leaks=0"});
    EXPECT_EQ(ended.code, 0) << ended.out << ended.err;
}
#endif

TEST_F(posix_allocation_log, a_child_that_cannot_write_goes_on_without) {
    std::filesystem::create_directory(m_folder / "sub");
    const std::string path = m_folder / "sub/log";
    const ending ended = play(fork_without_folder, {path});
    EXPECT_EQ(ended.code, 0) << ended.out;
    EXPECT_EQ(ended.err,
              "program: the allocation log '" + path + "." + ended.out + "' ends here: No such file or directory\n");
    EXPECT_EQ(tell(read_file(path)).events, (events{"A 1 10 0", "F 1 0"}));
}

TEST_F(posix_allocation_log, a_child_that_is_forked_at_the_very_end) {
    play_scene(fork_at_the_end);
    const std::vector<std::string> children = logs_of_children(m_path);
    ASSERT_EQ(children.size(), 1u);
    EXPECT_EQ(tell(read_file(children[0])).events, late_events);
}

TEST_F(posix_allocation_log, a_child_that_does_not_exit_leaves_what_it_inherited) {
    EXPECT_EQ(story_of(quick_child).events, (events{"A 1 10 0"}));
    const words children = logs_of_children(m_path);
    ASSERT_EQ(children.size(), 1u);
    EXPECT_EQ(tell(read_file(children[0])).events, (events{"A 1 10 0"}));
}

TEST_F(posix_allocation_log, children_of_children_have_logs_side_by_side) {
    EXPECT_EQ(story_of(three_generations).events, (events{"A 1 10 0"}));
    std::map<std::size_t, events> found; // by the number of events
    for (const std::string& each : logs_of_children(m_path)) {
        const std::string log = read_file(each);
        EXPECT_EQ(each, m_path + '.' + process_of(log));
        const events told = tell(log).events;
        found[told.size()] = told;
    }
    EXPECT_EQ(found, (std::map<std::size_t, events>{{2, {"A 1 10 0", "A 2 20 0"}},
                                                    {3, {"A 1 10 0", "A 2 20 0", "A 3 30 0"}}}));
}

TEST_F(posix_allocation_log, a_program_in_the_place_of_another_has_a_log_of_its_own) {
    const ending ended = play(replaced, {m_path}, {"QOR_MEMCHECK=" + m_path});
    EXPECT_EQ(ended.code, 0) << ended.out << ended.err;
    const std::string process = process_of(read_file(m_path));
    for (const char* const end : {"", ".2"}) {
        const std::string log = read_file(m_path + '.' + process + end);
        EXPECT_EQ(process_of(log), process);
    }
}

// ---------------------------------------------------------------- a process that closes descriptors

namespace {

// Closes all descriptors, as a daemon does. Each number then belongs to another file.
const scene closes_everything{"log_closes_everything", [](const words& arguments) {
                                  start(arguments[0]);
                                  qor_do_free(qor_do_malloc(0, 10, true, here, 1), here, 99);
                                  if (arguments[1] == "close")
                                      close_range(3, ~0u, 0);
                                  const int own = open((arguments[0] + ".own").c_str(), O_RDWR | O_CREAT, 0600);
                                  for (int i = 3; i < 100; ++i)
                                      if (arguments[1] == "reuse" && i != own)
                                          dup2(own, i);
                                  for (int i = 0; i < 1000; ++i)
                                      qor_do_free(qor_do_malloc(0, 20, true, "elsewhere", 2), here, 99);
                                  qor_do_free(qor_do_malloc(0, 30, true, here, 3), here, 99);
                                  return lseek(own, 0, SEEK_END) == 0 ? 0 : 1;
                              }};

} // namespace

TEST_F(posix_allocation_log, goes_on_when_the_host_closes_its_descriptor) {
    for (const char* const what : {"close", "reuse"}) {
        const ending ended = play(closes_everything, {m_path, what});
        EXPECT_EQ(ended.code, 0) << ended.out << ended.err;
        EXPECT_EQ(ended.err, "");
        EXPECT_EQ(tell(read_file(m_path)).events, (events{"A 1 10 0", "F 1 0", "A 3 30 0", "F 3 0"})) << what;
    }
}

// Opening a pipe anew would make the host wait for a reader.
TEST_F(posix_allocation_log, into_a_pipe_ends_when_the_host_closes_its_descriptor) {
    ASSERT_EQ(mkfifo(m_path.c_str(), 0600), 0);
    const int reader = open(m_path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(reader, 0);
    for (const char* const what : {"close", "reuse"}) {
        const ending ended = play(closes_everything, {m_path, what});
        EXPECT_EQ(ended.code, 0) << ended.out << ended.err;
        EXPECT_TRUE(ended.err.ends_with(": the allocation log '" + m_path + "' ends here: Bad file descriptor\n"))
            << ended.err;
        EXPECT_EQ(read_file(m_path + ".own").size(), 0u) << what;
    }
    close(reader);
}

// ---------------------------------------------------------------- a log that cannot be written

namespace {

const scene full_later{"log_full_later", [](const words& arguments) {
                           start(arguments[0]);
                           const rlimit limit{100'000, 100'000};
                           EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
                           work(1, 20'000);
                           return 0;
                       }};

} // namespace

TEST_F(posix_allocation_log, a_disk_that_fills_up_leaves_what_was_written) {
    const ending ended = play_scene(full_later);
    EXPECT_EQ(ended.code, 0) << ended.out;
    EXPECT_EQ(ended.err, "program: the allocation log '" + m_path + "' ends here: File too large\n");
    const std::string log = read_file(m_path);
    EXPECT_GT(log.size(), 90'000u);
    tell(log); // whole lines only
}

TEST_F(posix_allocation_log, nobody_who_reads_it_does_not_end_the_process) {
    ASSERT_EQ(mkfifo(m_path.c_str(), 0600), 0);
    std::thread reader([this] { close(open(m_path.c_str(), O_RDONLY)); });
    const ending ended = play_scene(much_work);
    reader.join();
    EXPECT_EQ(ended.code, 0) << ended.out;
    EXPECT_EQ(ended.err, "program: the allocation log '" + m_path + "' ends here: Broken pipe\n");
}

} // namespace qor::test::log
