#include "process_log.h"

#include "clocks.h"

#include <chrono>
#include <thread>

namespace qor::record {

namespace {

constexpr std::uint64_t time_step = 10'000'000; // nanoseconds between the time marks

constexpr char hex_pairs[513] = "000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f"
                                "202122232425262728292a2b2c2d2e2f303132333435363738393a3b3c3d3e3f"
                                "404142434445464748494a4b4c4d4e4f505152535455565758595a5b5c5d5e5f"
                                "606162636465666768696a6b6c6d6e6f707172737475767778797a7b7c7d7e7f"
                                "808182838485868788898a8b8c8d8e8f909192939495969798999a9b9c9d9e9f"
                                "a0a1a2a3a4a5a6a7a8a9aaabacadaeafb0b1b2b3b4b5b6b7b8b9babbbcbdbebf"
                                "c0c1c2c3c4c5c6c7c8c9cacbcccdcecfd0d1d2d3d4d5d6d7d8d9dadbdcdddedf"
                                "e0e1e2e3e4e5e6e7e8e9eaebecedeeeff0f1f2f3f4f5f6f7f8f9fafbfcfdfeff";

inline char* put_hex(char* at, std::uint64_t value) {
    const unsigned digits = (67U - static_cast<unsigned>(__builtin_clzll(value | 1))) / 4U;
    char* const end = at + digits;
    char* place = end;
    for (; place - at >= 2; value >>= 8) {
        place -= 2;
        std::memcpy(place, hex_pairs + 2 * (value & 0xff), 2);
    }
    if (place > at)
        *at = hex_pairs[2 * (value & 0xf) + 1];
    return end;
}

constexpr char number_begin[] = {' ', '0', 'x'};

inline char* put_caller(char* at, const caller_text& caller) {
    for (std::size_t done = 0; done < caller.size; done += 64)
        std::memcpy(at + done, caller.text + done, 64);
    return at + caller.size;
}

inline char* put_code_and_address(char* at, char code, std::uint64_t address) {
    *at++ = code;
    std::memcpy(at, number_begin, sizeof number_begin);
    return put_hex(at + sizeof number_begin, address);
}

} // namespace

process_log::process_log(arena_host& host, unsigned session_index, std::int32_t process)
    : m_host(host), m_session(host.shared().sessions[session_index]), m_ring(host.ring(session_index)),
      m_session_index(session_index), m_process(process), m_number(session_index != 0 ? m_session.number : 1),
      m_stacks(host) {}

int process_log::create(const std::string& log, const std::string& stacks, compression::format kind) {
    if (const int reason = m_log.create(log, kind)) {
        m_stacks.file().refuse(reason);
        return reason;
    }
    const int reason = m_stacks.file().create(stacks, kind);
    if (reason != 0)
        m_log.remove();
    return reason;
}

void process_log::begin(std::int32_t parent) {
    m_start_time = time_since_1970();
    m_stacks.begin(m_process, parent, m_start_time, m_host.shared().depth);
    char* const at = m_log.room();
    constexpr std::string_view start = "= Start\n";
    std::memcpy(at, start.data(), start.size());
    m_log.advance(at + start.size());
}

void process_log::publish(std::uint64_t tail) {
    m_session.tail.store(tail, std::memory_order_seq_cst);
    arena_host::wake_writers(m_session);
}

std::uint64_t process_log::drain(std::uint64_t most, bool is_over) {
    const std::uint64_t head = m_session.head.load(std::memory_order_acquire);
    if (head == m_tail || m_ring == nullptr)
        return 0;
    // A child that is being forked inherits what stands in the log up to here, and no more.
    if (!is_over && head - m_tail < ring_size / 2 && m_host.awaits_children())
        return 0;
    return read(head - m_tail > most ? m_tail + most : head, is_over);
}

std::uint64_t process_log::read(std::uint64_t end, bool is_over) {
    if (const std::uint64_t time = time_since_1970(); time - m_last_time >= time_step) {
        m_last_time = time;
        m_stacks.time(time - m_start_time);
    }
    const std::uint64_t first = m_tail;
    constexpr std::uint64_t publish_step = ring_size / 16;
    for (; m_tail < end; ++m_tail) {
        const ring_record& record = m_ring[m_tail % ring_size];
        std::uint64_t word = record.commit.load(std::memory_order_acquire);
        for (int i = 0; i < 100 && (word & ticket_bits) != m_tail + 1 && !is_over; ++i)
            word = record.commit.load(std::memory_order_acquire);
        if ((word & ticket_bits) == m_tail + 1)
            write(record, static_cast<record_kind>(word >> 56));
        else if (has_been_left(m_tail))
            ++m_lost;
        else if (!is_over)
            break; // the process has ended before the record was whole, so it did nothing more
        if (m_tail % publish_step == 0)
            publish(m_tail);
    }
    publish(m_tail);
    return m_tail - first;
}

void process_log::write_line(const caller_text& caller, char code, std::uint64_t address) {
    char* at = put_code_and_address(put_caller(m_log.room(), caller), code, address);
    *at++ = '\n';
    m_log.advance(at);
    ++m_lines;
}

void process_log::write_line(const caller_text& caller, char code, std::uint64_t address, std::uint64_t size) {
    char* at = put_code_and_address(put_caller(m_log.room(), caller), code, address);
    std::memcpy(at, number_begin, sizeof number_begin);
    at = put_hex(at + sizeof number_begin, size);
    *at++ = '\n';
    m_log.advance(at);
    ++m_lines;
}

// A signal handler that does not return to what it has interrupted may leave a ticket that is never committed.
bool process_log::has_been_left(std::uint64_t ticket) {
    constexpr std::uint64_t patience = 5'000'000'000;
    const std::uint64_t time = steady_time();
    if (m_stalled_at != ticket || m_stalled_since == 0) {
        m_stalled_at = ticket;
        m_stalled_since = time;
    }
    return time - m_stalled_since > patience && waiting() >= ring_limit;
}

// Whether it is about a block that is not in the log.
bool process_log::leaves_out(const ring_record& record, record_kind kind) {
    switch (kind) {
    case record_kind::allocation:
    case record_kind::moved_to:
        if (m_is_stopped)
            m_unlogged.insert(record.address);
        return m_is_stopped;
    case record_kind::release:
        return m_unlogged.erase(record.address) != 0;
    case record_kind::moved_from:
        m_moving.erase(record.thread);
        if (m_unlogged.erase(record.address) == 0)
            return false;
        m_moving[record.thread] = record.address;
        return true;
    case record_kind::not_moved:
        if (const auto moving = m_moving.find(record.thread);
            moving != m_moving.end() && moving->second == record.address) {
            m_unlogged.insert(record.address);
            return true;
        }
        return false;
    case record_kind::module_gone:
    case record_kind::left:
        return false;
    }
    return false;
}

void process_log::write(const ring_record& record, record_kind kind) {
    if ((m_is_stopped || !m_unlogged.empty() || !m_moving.empty()) && leaves_out(record, kind)) [[unlikely]]
        return;
    switch (kind) {
    case record_kind::allocation:
    case record_kind::moved_to:
        write_line(m_host.caller_of_node(record.stack), kind == record_kind::allocation ? '+' : '>', record.address,
                   record.detail);
        m_stacks.allocation(record.stack, record.thread);
        break;
    case record_kind::release:
    case record_kind::moved_from:
        write_line(m_host.caller(record.detail, record.stack), kind == record_kind::release ? '-' : '<',
                   record.address);
        break;
    case record_kind::not_moved:
        write_block_again(record);
        break;
    case record_kind::module_gone:
        m_stacks.module_gone(static_cast<std::uint32_t>(record.detail));
        break;
    case record_kind::left:
        break;
    }
}

// The block that realloc has left as it was, with the size that it had.
void process_log::write_block_again(const ring_record& record) {
    const log_replay& before = replay_of(m_lines);
    const auto block = before.moved_blocks().find(record.address);
    const std::uint64_t size = block != before.moved_blocks().end() ? block->second.size : 0;
    write_line(m_host.caller_of_node(record.stack), '>', record.address, size);
    m_stacks.allocation(record.stack, record.thread);
}

// The replay goes on from where it was, unless that is behind the place.
log_replay& process_log::replay_of(std::uint64_t lines) {
    flush();
    if (m_replay == nullptr || m_replay->lines() > lines)
        m_replay = std::make_unique<log_replay>(m_log.path(), m_stacks.file().path(), m_log.kind());
    if (!m_replay->advance(lines))
        ++m_lost;
    return *m_replay;
}

process_log::place process_log::place_of_fork(std::uint64_t ticket, bool is_over) {
    // Another thread of the parent may be about to commit an earlier record.
    for (int i = 0; m_tail < ticket && i < 1000; ++i) {
        if (read(ticket, is_over) == 0)
            std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
    return {m_lines, m_unlogged, m_stacks.modules_gone()};
}

void process_log::inherit(process_log& parent, const place& from) {
    m_unlogged = from.unlogged;
    const log_replay& replay = parent.replay_of(from.lines);
    m_inherited = replay.blocks().size();
    m_stacks.inherited(m_inherited);
    for (const auto& [address, block] : replay.blocks_in_order()) {
        const std::uint32_t node = parent.m_stacks.node_of(block.stack);
        write_line(m_host.caller_of_node(node), '+', address, block.size);
        m_stacks.stack(node);
    }
    for (const std::uint32_t module : from.modules_gone)
        m_stacks.module_gone(module);
}

void process_log::flush() {
    m_log.flush();
    m_stacks.file().flush();
}

void process_log::remove() {
    m_log.remove();
    m_stacks.file().remove();
}

void process_log::rename(const std::string& log, const std::string& stacks) {
    m_log.rename(log);
    m_stacks.file().rename(stacks);
}

void process_log::finish() {
    m_lost += m_session.lost.load(std::memory_order_relaxed);
    m_has_given_up = m_session.lost_why.load(std::memory_order_relaxed) != loss::nothing;
    m_log.finish();
    m_stacks.file().finish();
}

} // namespace qor::record
