#include "file_bytes.h"

#include <algorithm>
#include <cstring>

namespace qor::heap {

namespace {

constexpr std::size_t block_size = 256 * 1024;

} // namespace

bool file_bytes::open(const char* path) {
    close();
    if (!m_file.Open(path, qorFileReading | qorFileExisting | qorFileShared))
        return false;
    m_filter.emplace(path);
    m_raw.resize(block_size);
    m_next = m_end = m_raw.data();
    return true;
}

void file_bytes::close() {
    m_file.Close();
    m_filter.reset();
    m_is_decided = m_is_filtered = m_has_failed = false;
    m_position = 0;
    m_raw = {};
    m_next = m_end = nullptr;
}

// Reads more of the file behind what is not used yet. Returns false if there is no more.
bool file_bytes::fill() {
    const std::size_t kept = static_cast<std::size_t>(m_end - m_next);
    if (kept != 0)
        std::memmove(m_raw.data(), m_next, kept);
    m_next = m_raw.data();
    m_end = m_next + kept;
    const uint64 size = m_file.GetSize();
    const uint64 left = size > m_position ? size - m_position : 0;
    const auto count = static_cast<uint32>(std::min<uint64>(left, m_raw.size() - kept));
    if (count == 0)
        return false;
    if (!m_file.ReadAt(m_position, m_raw.data() + kept, count)) {
        m_has_failed = true;
        return false;
    }
    m_position += count;
    m_end += count;
    return true;
}

std::size_t file_bytes::read(char* out, std::size_t room) {
    if (m_has_failed || room == 0)
        return 0;
    while (!m_is_decided) {
        const bool has_more = m_next == m_end ? fill() : true;
        const auto found = m_next == m_end ? IQORFileFilter::answer::undecided
                                           : m_filter->IsFor(m_next, static_cast<uint64>(m_end - m_next));
        if (found == IQORFileFilter::answer::undecided) {
            if (!has_more || !fill())
                return 0; // fewer bytes than a signature has
            continue;
        }
        m_is_decided = true;
        m_is_filtered = found == IQORFileFilter::answer::yes;
    }
    char* next = out;
    while (next == out) {
        if (m_next == m_end && !fill() && (m_has_failed || !m_is_filtered))
            return 0;
        if (!m_is_filtered) {
            const std::size_t count = std::min(room, static_cast<std::size_t>(m_end - m_next));
            std::memcpy(out, m_next, count);
            m_next += count;
            return count;
        }
        const bool is_at_end = m_next == m_end;
        m_has_failed = !m_filter->Convert(&m_next, m_end, false, &next, out + room);
        if (m_has_failed || is_at_end)
            break;
    }
    return static_cast<std::size_t>(next - out);
}

bool file_bytes::is_whole() {
    if (m_has_failed)
        return false;
    char room[1];
    char* out = room;
    return !m_is_filtered || m_filter->Convert(&m_next, m_end, true, &out, room + 1);
}

} // namespace qor::heap
