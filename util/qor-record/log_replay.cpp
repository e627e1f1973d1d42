#include "log_replay.h"

#include "stacks_file.h"

#include <algorithm>
#include <charconv>

namespace qor::record {

log_replay::stream::stream(const std::string& path, compression::format kind)
    : m_decompressor(kind != compression::format::none ? std::make_unique<compression::decompressor>() : nullptr) {
    (void)m_file.open(path); // nothing can be read from a file that is not open
}

bool log_replay::stream::fill() {
    m_bytes.erase(0, m_at);
    m_at = 0;
    char piece[64U << 10];
    const std::size_t size = m_file.read(piece, sizeof piece);
    if (size == 0)
        return false;
    if (!m_decompressor) {
        m_bytes.append(piece, size);
        return true;
    }
    const char* next = piece;
    const char* const end = piece + size;
    char text[64U << 10];
    for (char* out = text + sizeof text; next != end || out == text + sizeof text;) {
        out = text;
        if (m_decompressor->convert(next, end, out, text + sizeof text) != compression::decompressor::outcome::good)
            return false;
        m_bytes.append(text, static_cast<std::size_t>(out - text));
    }
    return true;
}

bool log_replay::stream::line(std::string_view& text) {
    std::size_t end;
    while ((end = m_bytes.find('\n', m_at)) == std::string::npos)
        if (!fill())
            return false;
    text = std::string_view(m_bytes).substr(m_at, end - m_at);
    m_at = end + 1;
    return true;
}

bool log_replay::stream::number(std::uint64_t& value) {
    value = 0;
    for (unsigned shift = 0; shift < 64; shift += 7) {
        if (m_at == m_bytes.size() && !fill())
            return false;
        const auto byte = static_cast<unsigned char>(m_bytes[m_at++]);
        value |= static_cast<std::uint64_t>(byte & 0x7f) << shift;
        if (byte < 0x80)
            return true;
    }
    return false;
}

bool log_replay::stream::skip(std::uint64_t bytes) {
    while (m_bytes.size() - m_at < bytes)
        if (!fill())
            return false;
    m_at += bytes;
    return true;
}

log_replay::log_replay(const std::string& log, const std::string& stacks, compression::format kind)
    : m_log(log, kind), m_stacks(stacks, kind) {}

bool log_replay::next_stack(std::uint32_t& number) {
    // How many numbers, and then how many texts, an entry has.
    struct shape {
        int numbers;
        int texts;
    };
    constexpr shape shapes[] = {{}, {4, 2}, {3, 2}, {1, 0}, {1, 0}, {3, 0}, {1, 0}, {1, 1}, {1, 0}, {1, 1}, {1, 0}};
    if (!m_has_magic && !m_stacks.skip(stacks_magic_size))
        return false;
    m_has_magic = true;
    for (;;) {
        std::uint64_t kind;
        std::uint64_t value;
        if (!m_stacks.number(kind))
            return false;
        if (kind >= stacks_entry::first_stack) {
            number = static_cast<std::uint32_t>(kind - stacks_entry::first_stack);
            return true;
        }
        if (kind == 0 || kind >= std::size(shapes))
            return false;
        for (int i = 0; i < shapes[kind].numbers; ++i)
            if (!m_stacks.number(value))
                return false;
        for (int i = 0; i < shapes[kind].texts; ++i)
            if (!m_stacks.number(value) || !m_stacks.skip(value))
                return false;
    }
}

bool log_replay::advance(std::uint64_t lines) {
    while (m_lines < lines) {
        std::string_view text;
        if (!m_log.line(text))
            return false;
        if (!text.starts_with("@ "))
            continue;
        // "@ CALLER CODE 0xADDRESS[ 0xSIZE]": the caller has no blank.
        const std::size_t code_at = text.find(' ', 2) + 1;
        if (code_at == 0 || code_at + 4 > text.size())
            return false;
        const char code = text[code_at];
        std::uint64_t address = 0;
        const char* const end = text.data() + text.size();
        const auto [after, error] = std::from_chars(text.data() + code_at + 4, end, address, 16);
        if (error != std::errc())
            return false;
        ++m_lines;
        if (code == '-' || code == '<') {
            const auto found = m_blocks.find(address);
            if (found == m_blocks.end())
                continue;
            if (code == '<')
                m_moved_blocks[address] = found->second;
            m_blocks.erase(found);
            continue;
        }
        block added{0, 0, m_lines};
        if (end - after > 3)
            std::from_chars(after + 3, end, added.size, 16);
        if (!next_stack(added.stack))
            return false;
        m_blocks[address] = added;
        m_moved_blocks.erase(address);
    }
    return true;
}

std::vector<std::pair<std::uint64_t, log_replay::block>> log_replay::blocks_in_order() const {
    std::vector<std::pair<std::uint64_t, block>> sorted(m_blocks.begin(), m_blocks.end());
    std::ranges::sort(sorted, {}, [](const auto& each) { return each.second.line; });
    return sorted;
}

} // namespace qor::record
