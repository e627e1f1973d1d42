// Inside the library: lines of text in a file or on standard error, for the trace and the log.
//
// A file gets each line before the call returns, up to write_through_lines in each period of 10 ms. Further lines, more
// than anybody could read as they appear, go into memory that survives the end of the process. From there they are
// written to the file together, at the latest when the period has passed. If the process is killed, its unwritten lines
// remain in "<file>.<process>.rest" beside the file.
//
// If another file takes the place of the file, or its name is removed, later lines go to the file of that name.
#pragma once

#include "debug/surviving_memory.h"
#include "platform/raw_file.h"
#include "qor/system/Types.h"

#include <chrono>
#include <cstddef>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>

namespace qor::debug {

using moment = std::chrono::time_point<std::chrono::system_clock, std::chrono::microseconds>;

// "2026-11-21T02:52:56.123456Z"
std::string time_text(moment when);

// Never destroyed. Any thread may call it; all outputs share one lock, which is also held around forks.
class line_output {
public:
    // Returns a line, without its head, that says how many lines were lost.
    using loss_report = std::string (*)(uint64 lost);

    // Without `report`, nobody is told about lost lines.
    explicit line_output(loss_report report = nullptr) noexcept;
    line_output(const line_output&) = delete;
    line_output& operator=(const line_output&) = delete;

    // From now on appends lines to a file. Returns 0; or the system's error code, and then nothing has changed.
    int attach(const char* path) noexcept;

    // Switches back to standard error. All lines so far are in the file.
    void detach() noexcept;

    // Writes what is kept, and from now on each line at once. For the end of the process.
    void settle() noexcept;

    // Writes one line: its head, which is time, process and thread, then the parts and a line end.
    void write(std::initializer_list<std::string_view> parts) noexcept;

    // The lines that could not be written, since the start of the process.
    uint64 lost() const noexcept;

    // ---- for the exit handler, the flushing thread and the handlers of forks; all under the lock
    static void flush_periodically() noexcept;
    static void finish() noexcept;
    static void before_fork() noexcept;
    static void after_fork_in_parent() noexcept;
    static void after_fork_in_child() noexcept;

private:
    using microseconds = std::chrono::microseconds;

    void put(std::string_view line, moment now) noexcept;
    void put_on_stream(std::string_view line) noexcept;
    void begin_period() noexcept;
    void follow_name() noexcept;
    void flush() noexcept;
    void write_each_line() noexcept;
    bool write_to_file(std::string_view text) noexcept;
    bool keep(std::string_view line) noexcept;
    bool has_rest() noexcept;
    void look_for_torn_line() noexcept;
    void report_loss(bool is_last) noexcept;
    void count_loss(uint64 lines) noexcept;

    std::unique_ptr<platform::raw_file> m_file; // null for standard error
    std::string m_name;                         // the absolute path of the file; empty for a pipe or a device
    bool m_may_keep = false;                    // if false, each line is written at once
    bool m_is_torn = false;                     // the file ends with a part of a line of ours
    bool m_is_at_end = false;                   // the other threads are gone, and what they left is known
    surviving_memory m_rest;
    std::size_t m_kept = 0; // bytes in m_rest
    microseconds::rep m_period = 0;
    int m_write_through = 0; // lines in this period
    loss_report m_report;
    uint64 m_lost = 0;       // that nobody has been told about
    uint64 m_lost_total = 0; // of this process
    line_output* m_next;     // of all outputs
};

} // namespace qor::debug
