#include "stacks_log.h"

#include <algorithm>
#include <cstring>

namespace qor::heap {

namespace {

using namespace std::string_view_literals;

constexpr std::string_view beginning = "QORSTK\x01\n"sv;

// Room for the longest entry, two texts with their numbers, and for reading in large pieces.
constexpr std::size_t longest_entry = 2 * stacks_log::longest_text + 128;
constexpr std::size_t block_size = 2 * longest_entry;

constexpr int most_digits = 10; // bytes of a number

enum entry : uint64 {
    process_entry = 1,
    module_entry = 2,
    module_went = 3,
    module_back = 4,
    node_entry = 5,
    thread_entry = 6,
    thread_name = 7,
    time_entry = 8,
    loss_entry = 9,
    inherited_entry = 10,
};

} // namespace

bool stacks_log::open(const char* path) {
    qorClearLastError();
    if (!m_file.open(path))
        return false;
    m_bytes.resize(block_size);
    m_next = m_end = m_bytes.data();
    m_nodes.grow(1);
    m_modules.resize(1);
    while (static_cast<std::size_t>(m_end - m_next) < beginning.size() && read_more()) {
    }
    const std::string_view begins(m_next, static_cast<std::size_t>(m_end - m_next));
    if (!begins.starts_with(beginning)) {
        m_file.close();
        qorClearLastError();
        return false;
    }
    m_next += beginning.size();
    m_is_open = true;
    read_process_first();
    return true;
}

// The first entry, if the file is that long and the entry is a good one. Otherwise next() comes to it.
void stacks_log::read_process_first() {
    while (static_cast<std::size_t>(m_end - m_next) < longest_entry && read_more()) {
    }
    const char* const begin = m_next;
    uint64 kind;
    if (number(kind) && kind == process_entry && read_process())
        return;
    m_next = begin;
    m_ending = ending::not_reached;
}

// Reads behind what is not used yet. Returns false at the end of the file.
bool stacks_log::read_more() {
    const std::size_t kept = static_cast<std::size_t>(m_end - m_next);
    if (kept != 0)
        std::memmove(m_bytes.data(), m_next, kept);
    const std::size_t count = m_file.read(m_bytes.data() + kept, m_bytes.size() - kept);
    m_next = m_bytes.data();
    m_end = m_next + kept + count;
    return count != 0;
}

// At the end of the file for now. Returns true if more can be read.
bool stacks_log::take_end() {
    while (m_wait && m_wait())
        if (read_more())
            return true;
    qorClearLastError();
    if (!m_file.is_whole()) {
        qorGetLastError(m_failure);
        return fail(ending::unreadable);
    }
    return fail(m_next == m_end ? ending::whole : ending::cut_off);
}

bool stacks_log::fail(ending how) noexcept {
    if (m_ending == ending::not_reached)
        m_ending = how;
    m_is_inherited = false;
    return false;
}

uint32 stacks_log::next_of_any() {
    if (!m_is_open)
        return 0;
    while (m_ending == ending::not_reached) {
        const char* const begin = m_next;
        uint64 kind;
        m_is_short = false;
        if (number(kind) && (kind >= first_stack || read_entry(kind))) {
            if (kind < first_stack)
                continue;
            if (kind - first_stack < m_nodes.size())
                return take_stack(static_cast<uint32>(kind - first_stack));
            fail(ending::damaged);
        } else if (m_is_short) {
            m_next = begin;
            if (!read_more())
                take_end();
        }
    }
    return 0;
}

bool stacks_log::number(uint64& out) {
    if (m_end - m_next >= most_digits) [[likely]] {
        // Nothing can be short here.
        auto byte = static_cast<unsigned char>(*m_next++);
        uint64 value = byte & 0x7fU;
        for (unsigned shift = 7; byte >= 0x80; shift += 7) {
            byte = static_cast<unsigned char>(*m_next++);
            if (shift == 63 && byte > 1)
                return fail(ending::damaged);
            value |= uint64{byte & 0x7fU} << shift;
        }
        out = value;
        return true;
    }
    out = 0;
    for (unsigned shift = 0; m_next != m_end; shift += 7) {
        const auto byte = static_cast<unsigned char>(*m_next++);
        if (shift > 63 || (shift == 63 && byte > 1))
            return fail(ending::damaged);
        out |= uint64{byte & 0x7fU} << shift;
        if (byte < 0x80)
            return true;
    }
    m_is_short = true;
    return false;
}

bool stacks_log::text(std::string& out) {
    uint64 size;
    if (!number(size))
        return false;
    if (size > longest_text)
        return fail(ending::limit);
    if (size > static_cast<uint64>(m_end - m_next)) {
        m_is_short = true;
        return false;
    }
    out.assign(m_next, static_cast<std::size_t>(size));
    m_next += size;
    return true;
}

bool stacks_log::read_entry(uint64 kind) {
    uint64 value;
    std::string name;
    switch (kind) {
    case process_entry:
        return read_process();
    case module_entry:
        return read_module();
    case module_went:
    case module_back:
        return number(value) && ((value != 0 && value < m_modules.size()) || fail(ending::damaged));
    case node_entry:
        return read_node();
    case thread_entry:
        return number(value);
    case thread_name:
        return number(value) && text(name);
    case time_entry:
        if (!number(value))
            return false;
        m_time = std::max(m_time, value);
        m_has_times = true;
        return true;
    case loss_entry:
        return read_loss();
    case inherited_entry:
        if (!number(value))
            return false;
        m_inherited = value;
        return true;
    default:
        return fail(ending::newer);
    }
}

bool stacks_log::read_process() {
    process read;
    if (!number(read.pid) || !number(read.parent) || !number(read.start_ns) || !number(read.depth) ||
        !text(read.path) || !text(read.recorder))
        return false;
    m_process = std::move(read);
    return true;
}

bool stacks_log::read_module() {
    module read;
    if (!number(read.base) || !number(read.begin) || !number(read.end) || !text(read.path) || !text(read.build_id))
        return false;
    m_text_bytes += read.path.size() + read.build_id.size();
    if (m_modules.size() > most_modules || m_text_bytes > most_text)
        return fail(ending::limit);
    m_modules.push_back(std::move(read));
    return true;
}

bool stacks_log::read_node() {
    uint64 parent, in, address;
    if (!number(parent) || !number(in) || !number(address))
        return false;
    if (parent >= m_nodes.size() || in >= m_modules.size())
        return fail(ending::damaged);
    const uint32 depth = m_nodes[parent].depth + 1U;
    if (m_nodes.size() > most_nodes || depth > most_depth)
        return fail(ending::limit);
    m_nodes.push_back({address, static_cast<uint32>(parent), static_cast<uint16>(in), static_cast<uint16>(depth)});
    return true;
}

bool stacks_log::read_loss() {
    loss read;
    if (!number(read.records) || !text(read.reason))
        return false;
    if (m_losses.size() == most_losses)
        m_losses.back().records += read.records;
    else
        m_losses.push_back(std::move(read));
    return true;
}

} // namespace qor::heap
