// The two output streams of a replay. Standard error gets a counter every few records, so it is buffered; its bytes do
// not change. If both streams end in one place, a terminal or one file, their lines still appear in the order in which
// they were written.
#pragma once

#include <chrono>
#include <cstdio>

class report_streams {
public:
    // Uses the standard streams by default; tests pass others.
    explicit report_streams(std::FILE* out = stdout, std::FILE* err = stderr);
    report_streams(const report_streams&) = delete;
    report_streams& operator=(const report_streams&) = delete;
    ~report_streams();

    // Findings go here. If the order matters, pending output of the other stream is written first.
    std::FILE* out();

    // Progress and warnings go here. Nothing stays in the buffer for longer than `stale_after`.
    std::FILE* err();

    // Shows a number that the next one overwrites. It stays in a buffer: call flush_if_stale() before an operation that
    // may take a while.
    void progress(unsigned count);

    // Writes the buffer if its last flush was longer ago than `stale_after`.
    void flush_if_stale();

    // Writes both streams, because the wait has no limit.
    void before_wait();

private:
    static constexpr auto stale_after = std::chrono::milliseconds(100);

    void switch_to(std::FILE* stream);
    void write_progress();

    std::FILE* m_out;
    std::FILE* m_err;
    bool m_one_place;
    std::FILE* m_last = nullptr;
    std::chrono::steady_clock::time_point m_flushed;
    char m_progress[4096]; // for standard error, after its buffered text
    char* m_next_progress = m_progress;
};

// Returns true if standard output and standard error end in the same terminal or file.
bool streams_share_a_place();
