// The log of one process: its session in an arena, read into PREFIX.mtrace and PREFIX.stacks.
#pragma once

#include "stacks_file.h"

namespace qor::record {

class process_log {
public:
    process_log(arena_host& host, unsigned session_index, std::int32_t process);

    // Creates the files. 0, or the error of one of them.
    int create(const std::string& log, const std::string& stacks, compression kind);
    void begin(std::int32_t parent);

    // Reads what there is, up to `most` records; `is_over`: the process is no more, so what is not whole will not be.
    // Returns how many tickets it has passed.
    std::uint64_t drain(std::uint64_t most, bool is_over);
    // Tickets that were taken and are not read yet.
    std::uint64_t waiting() const noexcept { return m_session.head.load(std::memory_order_acquire) - m_tail; }
    void flush();
    void finish();
    void remove();
    void rename(const std::string& log, const std::string& stacks);

    std::int32_t process() const noexcept { return m_process; }
    unsigned session_index() const noexcept { return m_session_index; }
    std::uint64_t number() const noexcept { return m_session.number; }
    arena_host& host() const noexcept { return m_host; }
    output_file& log() noexcept { return m_log; }
    stacks_file& stacks() noexcept { return m_stacks; }
    std::uint64_t lines() const noexcept { return m_lines; }

private:
    void write(const ring_record& record, record_kind kind);
    void write_line(const caller_text& caller, char code, std::uint64_t address);
    void write_line(const caller_text& caller, char code, std::uint64_t address, std::uint64_t size);
    void publish(std::uint64_t tail);

    arena_host& m_host;
    session& m_session;
    ring_record* m_ring;
    unsigned m_session_index;
    std::int32_t m_process;
    std::uint64_t m_tail = 0;
    std::uint64_t m_lines = 0;
    std::uint64_t m_start_time = 0;
    std::uint64_t m_last_time = 0;
    output_file m_log;
    stacks_file m_stacks;
};

} // namespace qor::record
