// The log of one process: its session in an arena, read into PREFIX.mtrace and PREFIX.stacks.
#pragma once

#include "log_replay.h"
#include "stacks_file.h"

#include <unordered_set>

namespace qor::record {

class process_log {
public:
    process_log(arena_host& host, unsigned session_index, std::int32_t process);

    // Creates the files. 0, or the error of one of them.
    int create(const std::string& log, const std::string& stacks, compression::format kind);
    void begin(std::int32_t parent);

    // The place in a log up to which a forked child has inherited what it says.
    struct place {
        std::uint64_t lines = 0;
        std::unordered_set<std::uint64_t> unlogged;
        std::vector<std::uint32_t> modules_gone;
    };
    // The place in this log behind all records with tickets below this one.
    place place_of_fork(std::uint64_t ticket, bool is_over);
    void inherit(process_log& parent, const place& from);

    // Reads what there is, up to `most` records; `is_over`: the process is no more, so what is not whole will not be.
    // Returns how many tickets it has passed.
    std::uint64_t drain(std::uint64_t most, bool is_over);
    // Tickets that were taken and are not read yet.
    std::uint64_t waiting() const noexcept { return m_session.head.load(std::memory_order_acquire) - m_tail; }
    void flush();
    void finish();
    void remove();
    void rename(const std::string& log, const std::string& stacks);

    // While it is stopped, new blocks are not in the log, and neither is their release later on.
    void stop(bool is_stopped) noexcept { m_is_stopped = is_stopped; }

    std::int32_t process() const noexcept { return m_process; }
    void set_process(std::int32_t number) noexcept { m_process = number; }
    unsigned session_index() const noexcept { return m_session_index; }
    std::uint64_t number() const noexcept { return m_number; }
    output_file& log() noexcept { return m_log; }
    output_file& stacks() noexcept { return m_stacks.file(); }
    std::uint64_t lines() const noexcept { return m_lines; }
    std::uint64_t own_lines() const noexcept { return m_lines - m_inherited; }
    std::uint32_t stack_count() const noexcept { return m_stacks.stack_count(); }
    std::uint64_t lost() const noexcept { return m_lost; }
    // The process has stopped recording, as it was not read.
    bool has_given_up() const noexcept { return m_has_given_up; }

private:
    std::uint64_t read(std::uint64_t end, bool is_over);
    void write(const ring_record& record, record_kind kind);
    void write_line(const caller_text& caller, char code, std::uint64_t address);
    void write_line(const caller_text& caller, char code, std::uint64_t address, std::uint64_t size);
    void write_block_again(const ring_record& record);
    bool leaves_out(const ring_record& record, record_kind kind);
    void publish(std::uint64_t tail);
    bool has_been_left(std::uint64_t ticket);
    log_replay& replay_of(std::uint64_t lines);

    arena_host& m_host;
    session& m_session;
    ring_record* m_ring;
    unsigned m_session_index;
    std::int32_t m_process;
    std::uint64_t m_number;
    std::uint64_t m_tail = 0;
    std::uint64_t m_lines = 0;
    std::uint64_t m_inherited = 0;
    std::uint64_t m_lost = 0;
    std::uint64_t m_stalled_at = 0; // a ticket that is not committed
    std::uint64_t m_stalled_since = 0;
    std::uint64_t m_start_time = 0;
    std::uint64_t m_last_time = 0;
    bool m_is_stopped = false;
    bool m_has_given_up = false;
    std::unordered_set<std::uint64_t> m_unlogged;              // blocks that are alive and not in the log
    std::unordered_map<std::uint32_t, std::uint64_t> m_moving; // those of them that a thread's realloc is moving
    std::unique_ptr<log_replay> m_replay;
    output_file m_log;
    stacks_file m_stacks;
};

} // namespace qor::record
