#include "debug/line_output.h"

#include "error/error.h"
#include "platform/end_of_process.h"
#include "platform/own_process.h"
#include "stream/text_output.h"
#include "string/working_memory.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <thread>
#include <utility>

namespace {

using qor::debug::line_output;
using qor::debug::moment;
using qor::platform::raw_file;

constexpr std::chrono::microseconds period{10'000};
constexpr int write_through_lines = 100; // per period; writing them takes about a hundredth of it

// "2026-11-21T02:52:56.123456Z "
class time_texts {
public:
    static constexpr std::size_t length = 28;

    void write(char* to, moment now) noexcept {
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
        const auto fraction = static_cast<uint32>((now - second).count());
        write_two(to + length - 8, fraction / 10'000);
        write_two(to + length - 6, fraction / 100 % 100);
        write_two(to + length - 4, fraction % 100);
    }

private:
    static void write_two(char* to, uint32 number) noexcept {
        to[0] = static_cast<char>('0' + number / 10);
        to[1] = static_cast<char>('0' + number % 10);
    }

    std::chrono::sys_seconds m_second = std::chrono::sys_seconds::min();
    char m_text[80];
};

// Incremented in a forked child, where the ids of the process and the thread are different.
std::atomic<unsigned> generation{1};

// "4711:4712 ". Asks the system once per thread: a look-up takes half as long as writing a line.
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

// Never destroyed: objects that write lines may live until the very end of the process.
struct shared_state {
    std::mutex lock;
    line_output* first = nullptr;
    time_texts times;
    bool flusher_runs = false;
    std::condition_variable flusher;
};

shared_state& shared() {
    static shared_state* const made = new shared_state;
    return *made;
}

// While threads flood the lock, it is best left to one of them for some dozens of lines: what the lock protects is then
// in that processor's cache, and nobody is put to sleep and woken.
std::unique_lock<std::mutex> lock_soon(std::mutex& lock) noexcept {
    using clock = std::chrono::steady_clock;
    constexpr int tries = 5;
    constexpr std::chrono::microseconds pause{20};
    for (int i = 0; i < tries; ++i) {
        if (std::unique_lock hold(lock, std::try_to_lock); hold)
            return hold;
        for (const auto end = clock::now() + pause; clock::now() < end;)
            continue;
    }
    return std::unique_lock(lock);
}

uint64 count_lines(std::string_view text) noexcept {
    return static_cast<uint64>(std::count(text.begin(), text.end(), '\n'));
}

bool finishes_at_exit() noexcept {
    static const bool registered = std::atexit([] { line_output::finish(); }) == 0;
    return registered;
}

} // namespace

std::string qor::debug::time_text(moment when) {
    char text[time_texts::length];
    time_texts().write(text, when);
    return {text, time_texts::length - 1};
}

qor::debug::line_output::line_output(loss_report report) noexcept : m_report(report) {
    static const bool watching_forks =
        (platform::watch_forks(before_fork, after_fork_in_parent, after_fork_in_child), true);
    (void)watching_forks;
    const std::lock_guard hold(shared().lock);
    m_next = std::exchange(shared().first, this);
}

int qor::debug::line_output::attach(const char* path) noexcept {
    auto opened = std::make_unique<raw_file>();
    if (const int reason = opened->open(path, raw_file::access::append))
        return reason;
    const std::lock_guard hold(shared().lock);
    write_each_line();
    m_file = std::move(opened);
    m_is_torn = false;
    m_name = full_name_on_disk(path);
    m_may_keep = !m_name.empty();
    return 0;
}

void qor::debug::line_output::detach() noexcept {
    const std::lock_guard hold(shared().lock);
    write_each_line();
    report_loss(true);
    m_file.reset();
}

void qor::debug::line_output::settle() noexcept {
    const std::lock_guard hold(shared().lock);
    write_each_line();
    report_loss(true);
}

void qor::debug::line_output::write(std::initializer_list<std::string_view> parts) noexcept {
    // The surrounding code must not see other error codes than without the line.
    const qor::error::keep_failures keep;
    qor::string::working_memory memory;
    const std::string_view thread = thread_text();
    std::size_t size = time_texts::length + thread.size() + 1;
    for (const std::string_view part : parts)
        size += part.size();
    char* const line = memory.get(size);
    char* at = line + time_texts::length;
    at = std::copy(thread.begin(), thread.end(), at);
    for (const std::string_view part : parts)
        if (part.size() == 1)
            *at++ = part.front(); // half of the parts; a call would take longer
        else
            at = std::copy(part.begin(), part.end(), at);
    if (at[-1] != '\n')
        *at++ = '\n';
    const std::string_view whole(line, static_cast<std::size_t>(at - line));

    const auto hold = lock_soon(shared().lock);
    // Read under the lock, so that lines appear in the order of their times.
    const auto now = std::chrono::time_point_cast<microseconds>(std::chrono::system_clock::now());
    shared().times.write(line, now);
    if (m_file != nullptr)
        put(whole, now);
    else
        put_on_stream(whole);
}

uint64 qor::debug::line_output::lost() const noexcept {
    const std::lock_guard hold(shared().lock);
    return m_lost_total;
}

void qor::debug::line_output::put_on_stream(std::string_view line) noexcept {
    const bool is_written = qor::stream::write_this_text_only(stderr, line);
    if (std::fflush(stderr) != 0 || !is_written) {
        std::clearerr(stderr);
        count_loss(1);
    } else if (m_lost != 0) {
        report_loss(false);
    }
}

void qor::debug::line_output::put(std::string_view line, moment now) noexcept {
    const auto number = now.time_since_epoch() / period;
    if (number != m_period) {
        m_period = number;
        begin_period();
    }
    if (m_write_through == 0 && keep(line))
        return;
    if (m_write_through != 0)
        --m_write_through;
    flush();
    write_to_file(line);
}

void qor::debug::line_output::begin_period() noexcept {
    m_write_through = write_through_lines;
    follow_name();
    if (m_lost != 0) {
        flush();
        report_loss(false);
    }
}

// A program that rotates logs has renamed the file. If there can be no other, the lines stay together.
void qor::debug::line_output::follow_name() noexcept {
    if (m_name.empty() || m_file->is_at(m_name.c_str()))
        return;
    auto opened = std::make_unique<raw_file>();
    if (opened->open(m_name.c_str(), raw_file::access::append) != 0)
        return;
    flush();
    m_file = std::move(opened);
    m_is_torn = false;
}

void qor::debug::line_output::flush() noexcept {
    if (m_kept == 0)
        return;
    write_to_file({m_rest.bytes(), m_kept});
    // In this order, because a thread may be ended in the middle.
    const std::size_t written = std::exchange(m_kept, 0);
    std::memset(m_rest.bytes(), 0, written);
}

// Writes the kept lines, and from now on each line at once.
void qor::debug::line_output::write_each_line() noexcept {
    flush();
    m_rest.close();
    m_may_keep = false;
}

// If other code has closed the descriptor, its number may belong to another file by now.
bool qor::debug::line_output::write_to_file(std::string_view text) noexcept {
    std::size_t written = 0;
    int reason = m_file->recover(m_name.c_str());
    if (platform::other_threads_are_gone())
        look_for_torn_line();
    // What follows a part of a line begins a new one.
    if (reason == 0 && m_is_torn) {
        reason = m_file->write("\n", 1);
        m_is_torn = reason != 0;
    }
    if (reason == 0)
        reason = m_file->write(text.data(), text.size(), &written);
    if (reason == 0)
        return true;
    if (written != 0)
        m_is_torn = text[written - 1] != '\n';
    count_loss(count_lines(text.substr(written)));
    return false;
}

// A thread that was ended while it wrote may have left a part of a line. The system may still be writing the rest.
void qor::debug::line_output::look_for_torn_line() noexcept {
    constexpr int looks = 50;
    constexpr std::chrono::milliseconds pause{1};
    raw_file written;
    if (std::exchange(m_is_at_end, true) || m_name.empty() || written.open(m_name.c_str(), raw_file::access::read) != 0)
        return;
    for (int look = 0; look < looks; ++look) {
        std::uint64_t size = 0;
        char last = '\n';
        std::size_t count = 0;
        if (written.size(&size) != 0 || size == 0 || written.read_at(size - 1, &last, 1, &count) != 0)
            return;
        m_is_torn = last != '\n';
        if (!m_is_torn)
            return;
        std::this_thread::sleep_for(pause);
    }
}

void qor::debug::line_output::count_loss(uint64 lines) noexcept {
    m_lost += lines;
    m_lost_total += lines;
    if (m_report != nullptr)
        finishes_at_exit();
}

// Says how many lines were lost, where the lines go; the last time on standard error, if it is not possible there.
void qor::debug::line_output::report_loss(bool is_last) noexcept {
    const uint64 lost = std::exchange(m_lost, 0);
    if (lost == 0 || m_report == nullptr)
        return;
    char head[time_texts::length];
    shared().times.write(head, std::chrono::time_point_cast<microseconds>(std::chrono::system_clock::now()));
    const std::string_view thread = thread_text();
    std::string line(head, sizeof head);
    line.append(thread).append(m_report(lost)).append("\n");
    const uint64 total = m_lost_total;
    bool is_said = m_file != nullptr && write_to_file(line);
    if (!is_said && (m_file == nullptr || is_last)) {
        is_said = qor::stream::write_this_text_only(stderr, line);
        is_said = std::fflush(stderr) == 0 && is_said;
        if (!is_said)
            std::clearerr(stderr);
    }
    // The report itself is no line of anybody's.
    m_lost_total = total;
    m_lost = is_said ? 0 : lost;
}

// Returns false if the line must be written at once.
bool qor::debug::line_output::keep(std::string_view line) noexcept {
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
        shared().flusher.notify_one();
    return true;
}

bool qor::debug::line_output::has_rest() noexcept {
    if (m_rest.is_open())
        return true;
    if (!m_may_keep)
        return false;
    // Process ids are reused, and the file of a killed process must stay, so a name that is taken gets a number.
    const std::string first = m_name + '.' + std::to_string(qor::platform::process_id()) + ".rest";
    std::string name = first;
    int reason = m_rest.open(name);
    for (int i = 2; reason == raw_file::is_taken; ++i)
        reason = m_rest.open(name = first + '.' + std::to_string(i));
    if (reason == 0 && !shared().flusher_runs) {
        reason = qor::platform::start_thread(flush_periodically);
        shared().flusher_runs = reason == 0;
    }
    if (reason != 0 || !finishes_at_exit())
        write_each_line();
    return m_rest.is_open();
}

void qor::debug::line_output::flush_periodically() noexcept {
    shared_state& all = shared();
    const auto any_keeps_lines = [&all] {
        for (const line_output* each = all.first; each != nullptr; each = each->m_next)
            if (each->m_kept != 0)
                return true;
        return false;
    };
    std::unique_lock hold(all.lock);
    for (;;) {
        all.flusher.wait(hold, any_keeps_lines);
        hold.unlock();
        std::this_thread::sleep_for(period);
        hold.lock();
        for (line_output* each = all.first; each != nullptr; each = each->m_next)
            each->flush();
    }
}

void qor::debug::line_output::finish() noexcept {
    const std::lock_guard hold(shared().lock);
    for (line_output* each = shared().first; each != nullptr; each = each->m_next) {
        each->write_each_line();
        each->report_loss(true);
        if (each->m_file != nullptr && platform::other_threads_are_gone())
            each->write_to_file({});
    }
}

void qor::debug::line_output::before_fork() noexcept { shared().lock.lock(); }
void qor::debug::line_output::after_fork_in_parent() noexcept { shared().lock.unlock(); }

// The kept lines, the losses and the flushing thread belong to the parent.
void qor::debug::line_output::after_fork_in_child() noexcept {
    for (line_output* each = shared().first; each != nullptr; each = each->m_next) {
        each->m_rest.leave();
        each->m_kept = 0;
        each->m_lost = 0;
        each->m_lost_total = 0;
    }
    shared().flusher_runs = false;
    new (&shared().flusher) std::condition_variable; // no thread waits for the old one in this process
    ++generation;
    shared().lock.unlock();
}
