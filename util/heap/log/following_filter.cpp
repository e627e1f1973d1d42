#include "following_filter.h"

#include "qor/qor.h"

#include <algorithm>
#include <cstring>

namespace qor::heap {

// The end of the file is only the end for now.
bool following_filter::Convert(const char** next, const char* end, bool, char** out, char* out_end) noexcept {
    return qor::or_end([&] {
        bool is_good = true;
        while (is_good && *out != out_end) {
            pass_lines_on(out, out_end);
            if (*next == end || *out == out_end)
                break;
            is_good = !is_decided(next, end) || add_text(next, end);
        }
        pass_lines_on(out, out_end);
        return is_good;
    });
}

void following_filter::pass_lines_on(char** out, char* out_end) {
    const std::size_t lines = m_text.size() > longest_kept ? m_text.size() : m_text.rfind('\n') + 1;
    const std::size_t count = std::min(lines, static_cast<std::size_t>(out_end - *out));
    std::memcpy(*out, m_text.data(), count);
    *out += count;
    m_text.erase(0, count);
}

bool following_filter::is_decided(const char** next, const char* end) {
    while (!m_is_decided && *next != end) {
        m_head += *(*next)++;
        const answer found = m_decompressor.IsFor(m_head.data(), m_head.size());
        m_is_decided = found != answer::undecided;
        m_is_compressed = found == answer::yes;
    }
    return m_is_decided;
}

bool following_filter::add_text(const char** next, const char* end) {
    if (!m_is_compressed) {
        m_text.append(m_head).append(*next, end);
        m_head.clear();
        *next = end;
        return true;
    }
    char room[64 * 1024];
    const auto convert = [&](const char** from, const char* from_end) {
        char* to;
        bool is_good;
        do {
            to = room;
            is_good = m_decompressor.Convert(from, from_end, false, &to, room + sizeof room);
            m_text.append(room, to);
        } while (is_good && (*from != from_end || to == room + sizeof room));
        return is_good;
    };
    const char* head = m_head.data();
    const bool is_good = convert(&head, head + m_head.size()) && convert(next, end);
    m_head.clear();
    return is_good;
}

} // namespace qor::heap
