// Logs that come through a pipe.
#include "heap/log/heap_log.h"
#include "heap/table/allocation_table.h"
#include "support/temp_folder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <pthread.h>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <system_error>
#include <thread>
#include <unistd.h>

namespace {

using namespace qor::heap;
using namespace qor::test;
using mtrace_log = heap_log<log_lines::mtrace_line<uint32>>;
using extent = mtrace_log::extent;

// The thread sanitizer adds a thread of its own when the first thread is started.
#if defined(__SANITIZE_THREAD__)
constexpr std::ptrdiff_t fewest_threads = 2;
#else
constexpr std::ptrdiff_t fewest_threads = 1;
#endif

std::ptrdiff_t threads_of_this_process() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
}

class piped_log : public testing::Test {
protected:
    piped_log() {
        m_path = m_folder / "fifo";
        EXPECT_EQ(mkfifo(m_path.c_str(), 0600), 0);
        writer = open(m_path.c_str(), O_RDWR | O_CLOEXEC); // so that neither side waits in open()
        EXPECT_TRUE(log->open(m_path.c_str(), extent::whole));
    }
    ~piped_log() override {
        log.reset();
        if (writer >= 0)
            close(writer);
        // A detached thread now sees the end of the log. Its memory would be lost in a process that is forked before
        // the thread has ended.
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (threads_of_this_process() > std::max(m_threads, fewest_threads)) {
            if (std::chrono::steady_clock::now() > end) {
                ADD_FAILURE() << "a thread does not end";
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }

    void write_lines(uint64 first, int count) {
        std::string text;
        for (int i = 0; i < count; ++i)
            text += "@ app + 0x" + std::to_string(first + static_cast<uint64>(i)) + " 1\n";
        write_all(text);
    }

    uint64 next_address() {
        const mtrace_log::entry* const next = log->next(*m_table);
        return next != nullptr ? next->address : 0;
    }

    void write_all(const std::string& text) {
        ASSERT_EQ(write(writer, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }

    std::atomic<int> waited = 0;
    std::unique_ptr<mtrace_log> log = std::make_unique<mtrace_log>(0, nullptr, [this] { ++waited; });
    int writer = -1;

private:
    const std::ptrdiff_t m_threads = threads_of_this_process();
    temp_folder m_folder;
    std::string m_path;
    std::unique_ptr<allocation_table<uint32>> m_table = std::make_unique<allocation_table<uint32>>();
};

// Even if a thread reads ahead, no line waits for one that is not written yet.
TEST_F(piped_log, a_line_is_seen_when_it_is_written) {
    for (uint64 i = 100; i < 120; ++i) {
        write_lines(i, 1);
        ASSERT_EQ(next_address(), std::strtoull(std::to_string(i).c_str(), nullptr, 16));
    }
}

// This also holds after the beginning of a line, and for both readers.
TEST_F(piped_log, what_there_is_to_show_is_shown_before_a_wait) {
    // So often that the thread also reads; never more than the pipe holds.
    for (int i = 0; i < 3000; ++i) {
        if (i % 1000 == 0)
            write_lines(100, 1000);
        ASSERT_NE(next_address(), 0u);
    }
    ASSERT_EQ(write(writer, "@ app", 5), 5);
    const int before = waited;
    std::thread stalled([this, before] {
        while (waited == before)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        write_all(" + 0x10 1\n");
    });
    EXPECT_EQ(next_address(), 0x10u);
    stalled.join();
    EXPECT_EQ(waited, before + 1);
}

TEST_F(piped_log, the_first_wait) {
    std::thread stalled([this] {
        while (waited == 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        write_all("@ app + 0x10 1\n");
    });
    EXPECT_EQ(next_address(), 0x10u);
    stalled.join();
    EXPECT_EQ(waited, 1);
}

// The thread that reads ahead waits for a line that does not come; nothing waits for the thread.
TEST_F(piped_log, one_that_is_left_while_nothing_comes) {
    write_lines(10, 1);
    EXPECT_EQ(next_address(), 0x10u);
    write_lines(11, 1);
    EXPECT_EQ(next_address(), 0x11u);
    log.reset();
}

bool can_start_a_thread() {
    try {
        std::thread([] {}).join();
        return true;
    } catch (const std::system_error&) {
        return false;
    }
}

TEST(heap_log_without_threads, is_read_all_the_same) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer takes more addresses than a limit can leave";
#endif
    const temp_folder folder;
    std::string text;
    for (int i = 1; i <= 20'000; ++i)
        text += "@ app + 0x" + std::to_string(i) + " 1\n";
    const std::string path = folder.file("log", text);
    qorClearLastError(); // loads the library, which takes addresses too
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        const auto table = std::make_unique<allocation_table<uint32>>();
        // There is no space for another stack, and no used stack that is large enough.
        pthread_attr_t attributes;
        pthread_attr_init(&attributes);
        pthread_attr_setstacksize(&attributes, std::size_t{64} << 20);
        if (pthread_setattr_default_np(&attributes) != 0)
            _exit(2);
        std::size_t pages = 0;
        std::ifstream("/proc/self/statm") >> pages;
        const rlim_t room = pages * static_cast<rlim_t>(sysconf(_SC_PAGESIZE)) + (rlim_t{4} << 20);
        const rlimit addresses{room, room};
        if (setrlimit(RLIMIT_AS, &addresses) != 0 || can_start_a_thread())
            _exit(2);
        mtrace_log log(0, nullptr);
        int count = 0;
        if (log.open(path.c_str(), extent::whole))
            while (log.next(*table) != nullptr)
                ++count;
        _exit(count == 20'000 ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

} // namespace
