#include "ipc/frame.h"

namespace {

constexpr char magic[] = {'q', 'm', 's', 'g'};
// A message of usual length gets its memory at once, of which the system gives what is used.
constexpr std::size_t least_room = 64 << 10;

} // namespace

void qor::ipc::write_number(char* to, uint32 number) noexcept {
    for (int i = 0; i < 4; ++i)
        to[i] = static_cast<char>(static_cast<unsigned char>(number >> (8 * i)));
}

uint32 qor::ipc::read_number(const char* from) noexcept {
    uint32 number = 0;
    for (int i = 0; i < 4; ++i)
        number |= static_cast<uint32>(static_cast<unsigned char>(from[i])) << (8 * i);
    return number;
}

void qor::ipc::write_header(char* to, frame_kind kind, uint32 length) noexcept {
    write_number(to, length);
    write_number(to + 4, static_cast<uint32>(kind));
}

void qor::ipc::write_hello(char* to, const hello& what) noexcept {
    std::memcpy(to, magic, sizeof magic);
    write_number(to + 4, frame_version);
    write_number(to + 8, what.longest_message);
    write_number(to + 12, what.silence);
}

bool qor::ipc::read_hello(const char* from, hello& out) noexcept {
    out.longest_message = read_number(from + 8);
    out.silence = read_number(from + 12);
    return std::memcmp(from, magic, sizeof magic) == 0 && read_number(from + 4) == frame_version &&
           (out.silence == 0 || out.silence >= shortest_silence);
}

bool qor::ipc::frame_reader::check(const char* header) noexcept {
    m_length = read_number(header);
    const uint32 kind = read_number(header + 4);
    if (kind > static_cast<uint32>(frame_kind::refused))
        return false;
    m_kind = static_cast<frame_kind>(kind);
    switch (m_kind) {
    case frame_kind::message:
        return m_length <= m_longest;
    case frame_kind::hello:
        return m_length == hello_size;
    case frame_kind::refused:
        return m_length == refused_size;
    case frame_kind::alive:
    case frame_kind::end:
    case frame_kind::arrived:
        break;
    }
    return m_length == 0;
}

void qor::ipc::frame_reader::grow(std::size_t needed) {
    if (needed <= m_capacity)
        return;
    const std::size_t wanted = std::max({needed, 2 * m_capacity, least_room});
    m_capacity = std::min<std::size_t>(wanted, m_length);
    auto larger = std::make_unique_for_overwrite<char[]>(m_capacity);
    if (m_have != 0)
        std::memcpy(larger.get(), m_bytes.get(), m_have);
    m_bytes = std::move(larger);
}
