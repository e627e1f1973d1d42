#include "debug/trace_output.h"

#include "debug/surviving_memory.h"
#include "error/error.h"
#include "platform/own_process.h"
#include "platform/raw_file.h"
#include "stream/text_output.h"
#include "string/working_memory.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <string>
#include <thread>

namespace {

using std::chrono::microseconds;
using time_point = std::chrono::time_point<std::chrono::system_clock, microseconds>;
using qor::debug::surviving_memory;

constexpr microseconds period{10'000};
constexpr int write_through_lines = 100; // per period; writing them takes about a hundredth of it

void flush_periodically() noexcept;
void finish() noexcept;

// A trace that cannot be written must not disturb the process, so failures of the file are not reported.
class trace_file {
public:
    int open(const char* path) noexcept {
        close();
        if (const int reason = m_file.open(path, qor::platform::raw_file::access::append))
            return reason;
        m_name = qor::debug::full_name_on_disk(path);
        m_may_keep = !m_name.empty();
        m_is_attached = true;
        return 0;
    }

    void close() noexcept {
        write_each_line();
        m_file.close();
        m_is_attached = false;
    }

    bool is_attached() const noexcept { return m_is_attached; }

    void put(std::string_view line, time_point now) noexcept {
        const auto number = now.time_since_epoch() / period;
        if (number != m_period) {
            m_period = number;
            m_write_through = write_through_lines;
        }
        if (m_write_through == 0 && keep(line))
            return;
        if (m_write_through != 0)
            --m_write_through;
        flush();
        write(line);
    }

    void flush() noexcept {
        if (m_kept == 0)
            return;
        write({m_rest.bytes(), m_kept});
        std::memset(m_rest.bytes(), 0, m_kept);
        m_kept = 0;
    }

    bool keeps_lines() const noexcept { return m_kept != 0; }

    // Writes the kept lines, and from now on each line at once.
    void write_each_line() noexcept {
        flush();
        m_rest.close();
        m_may_keep = false;
    }

    // The kept lines and the flushing thread belong to the parent.
    void continue_in_child() noexcept {
        m_rest.leave();
        m_kept = 0;
        m_flusher_runs = false;
        new (&m_flusher) std::condition_variable; // no thread waits for the old one in this process
    }

    std::condition_variable& flusher() noexcept { return m_flusher; }

private:
    // If other code has closed the descriptor, its number may belong to another file by now.
    void write(std::string_view text) noexcept {
        if (m_file.recover(m_name.c_str()) == 0)
            (void)m_file.write(text.data(), text.size());
    }

    // Returns false if the line must be written at once.
    bool keep(std::string_view line) noexcept {
        if (line.size() > surviving_memory::size || !has_rest())
            return false;
        if (line.size() > surviving_memory::size - m_kept)
            flush();
        // The first byte is stored last. A line that was interrupted by the end of the process has no first byte and is
        // ignored.
        char* const to = m_rest.bytes() + m_kept;
        std::memcpy(to + 1, line.data() + 1, line.size() - 1);
        std::atomic_ref(*to).store(line.front(), std::memory_order_release);
        m_kept += line.size();
        if (m_kept == line.size())
            m_flusher.notify_one();
        return true;
    }

    bool has_rest() noexcept {
        if (m_rest.is_open())
            return true;
        if (!m_may_keep)
            return false;
        // Process ids are reused, and the file of a killed process must stay, so a name that is taken gets a number.
        const std::string first = m_name + '.' + std::to_string(qor::platform::process_id()) + ".rest";
        std::string name = first;
        int reason = m_rest.open(name);
        for (int i = 2; reason == qor::platform::raw_file::is_taken; ++i)
            reason = m_rest.open(name = first + '.' + std::to_string(i));
        if (reason == 0 && !m_flusher_runs) {
            reason = qor::platform::start_thread(flush_periodically);
            m_flusher_runs = reason == 0;
        }
        static const bool at_exit = std::atexit([] { finish(); }) == 0;
        if (reason != 0 || !at_exit)
            write_each_line();
        return m_rest.is_open();
    }

    qor::platform::raw_file m_file;
    bool m_is_attached = false;
    std::string m_name;      // the absolute path of the file; empty for a pipe or a device
    bool m_may_keep = false; // if false, each line is written at once
    surviving_memory m_rest;
    std::size_t m_kept = 0; // bytes in m_rest
    microseconds::rep m_period = 0;
    int m_write_through = 0; // lines in this period
    bool m_flusher_runs = false;
    std::condition_variable m_flusher;
};

// "2026-11-21T02:52:56.123456Z "
class time_texts {
public:
    static constexpr std::size_t length = 28;

    void write(char* to, time_point now) noexcept {
        using namespace std::chrono;
        const auto second = floor<seconds>(now);
        if (second != m_second) {
            const auto day = floor<days>(second);
            const year_month_day date{day};
            const hh_mm_ss time{second - day};
            std::snprintf(m_text, sizeof m_text, "%04d-%02u-%02uT%02d:%02d:%02d.000000Z ",
                          static_cast<int>(date.year()), static_cast<unsigned>(date.month()),
                          static_cast<unsigned>(date.day()), static_cast<int>(time.hours().count()),
                          static_cast<int>(time.minutes().count()), static_cast<int>(time.seconds().count()));
            m_second = second;
        }
        std::memcpy(to, m_text, length);
        auto fraction = static_cast<uint32>((now - second).count());
        for (char* digit = to + length - 2; fraction != 0; fraction /= 10)
            *--digit = static_cast<char>('0' + fraction % 10);
    }

private:
    std::chrono::sys_seconds m_second = std::chrono::sys_seconds::min();
    char m_text[80];
};

// Incremented in a forked child, where the ids of the process and the thread are different.
std::atomic<unsigned> generation{1};

// "4711:4712 ". Asks the system once per thread: a look-up takes half as long as tracing a line.
std::string_view thread_text() noexcept {
    thread_local struct {
        unsigned generation = 0;
        char text[48];
        std::size_t length = 0;
    } known;
    if (const unsigned now = generation.load(std::memory_order_relaxed); known.generation != now) {
        known.generation = now;
        known.length = static_cast<std::size_t>(std::snprintf(known.text, sizeof known.text, "%lu:%lu ",
                                                              qor::platform::process_id(), qor::platform::thread_id()));
    }
    return {known.text, known.length};
}

// Never destroyed: objects that trace may live until the very end of the process.
struct shared_output {
    std::mutex lock;
    trace_file file;
    time_texts times;
};

shared_output& output() {
    static shared_output* const made = new shared_output;
    return *made;
}

void flush_periodically() noexcept {
    std::unique_lock hold(output().lock);
    for (;;) {
        output().file.flusher().wait(hold, [] { return output().file.keeps_lines(); });
        hold.unlock();
        std::this_thread::sleep_for(period);
        hold.lock();
        output().file.flush();
    }
}

void finish() noexcept {
    const auto hold = qor::platform::lock_at_exit(output().lock);
    output().file.write_each_line();
}

void before_fork() noexcept { output().lock.lock(); }
void after_fork_in_parent() noexcept { output().lock.unlock(); }
void after_fork_in_child() noexcept {
    output().file.continue_in_child();
    ++generation;
    output().lock.unlock();
}

} // namespace

void qor::debug::write_line(const char* code_name, std::string_view text) noexcept {
    // Tracing must not change the error codes that the traced code sees.
    const qor::error::keep_failures keep;
    static const bool watching_forks =
        (qor::platform::watch_forks(before_fork, after_fork_in_parent, after_fork_in_child), true);
    (void)watching_forks;
    qor::string::working_memory memory;
    const std::string_view thread = thread_text();
    const std::string_view name(code_name);
    const std::size_t size = time_texts::length + thread.size() + name.size() + text.size() + 2;
    char* const line = memory.get(size);
    char* at = line + time_texts::length;
    const auto add = [&at](std::string_view part) { at = std::copy(part.begin(), part.end(), at); };
    add(thread);
    add(name);
    add(" ");
    add(text);
    if (!text.ends_with('\n'))
        add("\n");
    const std::string_view whole(line, static_cast<std::size_t>(at - line));

    shared_output& to = output();
    const std::lock_guard hold(to.lock);
    // Read under the lock, so that lines appear in the order of their times.
    const auto now = std::chrono::time_point_cast<microseconds>(std::chrono::system_clock::now());
    to.times.write(line, now);
    if (to.file.is_attached()) {
        to.file.put(whole, now);
        return;
    }
    (void)qor::stream::write_this_text_only(stderr, whole);
    std::fflush(stderr);
}

int qor::debug::attach_file(const char* path) noexcept {
    const std::lock_guard hold(output().lock);
    return output().file.open(path);
}

void qor::debug::detach_file() noexcept {
    const std::lock_guard hold(output().lock);
    output().file.close();
}
