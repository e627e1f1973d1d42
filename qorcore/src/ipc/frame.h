// Inside the library: the form of messages on the way between processes. docs/messages-between-processes.md describes
// it.
#pragma once

#include "qor/system/Types.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <memory>

namespace qor::ipc {

enum class frame_kind : uint8 {
    message = 0,
    alive = 1,   // a sign of life
    end = 2,     // nothing follows
    arrived = 3, // the answer to it: all before it has been received
    hello = 4,   // the first of each side
    refused = 5, // in the place of the server's
};

// Why a connection is refused.
enum class refusal : uint32 { full = 1, by_program = 2, other_user = 3 };

inline constexpr std::size_t header_size = 8;
inline constexpr uint32 hello_size = 16;
inline constexpr uint32 refused_size = 4;
inline constexpr uint16 frame_version = 1;
// The shortest limit of silence that a side may set, in milliseconds.
inline constexpr uint32 shortest_silence = 100;

void write_number(char* to, uint32 number) noexcept; // little-endian
uint32 read_number(const char* from) noexcept;

void write_header(char* to, frame_kind kind, uint32 length) noexcept;

// What a side says of itself.
struct hello {
    uint32 longest_message;
    uint32 silence; // 0: it does not judge
};
void write_hello(char* to, const hello& what) noexcept;
// Returns false if it is not that of this protocol.
bool read_hello(const char* from, hello& out) noexcept;

struct frame {
    frame_kind kind;
    const char* bytes;
    uint32 length;
};

// Takes frames out of the bytes that arrive in pieces of any size. Memory grows with the bytes that are there, not with
// the length that is announced.
class frame_reader {
public:
    explicit frame_reader(uint32 longest_message) noexcept : m_longest(longest_message) {}

    // How much memory it holds.
    std::size_t held() const noexcept { return m_capacity; }

    // Where further bytes of an incomplete message can be read to directly; `added` tells how many were.
    char* room(std::size_t& length) noexcept {
        length = m_capacity - m_have;
        return m_bytes.get() + m_have;
    }
    // `take` as below.
    template <class TAKE>
    bool added(std::size_t length, TAKE take) {
        m_have += length;
        return finish(take);
    }

    // Calls take(frame) for each frame that these bytes complete, and keeps the rest. Stops when it returns false.
    // Returns false if the bytes are not the protocol.
    template <class TAKE>
    bool feed(const char* bytes, std::size_t length, TAKE take) {
        while (length != 0 && !m_is_stopped) {
            if (m_header_have == 0 && length >= header_size) {
                if (!check(bytes))
                    return false;
                if (length - header_size >= m_length) { // the whole frame is here
                    m_is_stopped = !take(frame{m_kind, bytes + header_size, m_length});
                    const std::size_t whole = header_size + m_length;
                    bytes += whole;
                    length -= whole;
                    continue;
                }
            }
            if (m_header_have < header_size) {
                const std::size_t part = std::min(length, header_size - m_header_have);
                std::memcpy(m_header + m_header_have, bytes, part);
                m_header_have += part;
                bytes += part;
                length -= part;
                if (m_header_have == header_size && !check(m_header))
                    return false;
            }
            if (m_header_have == header_size) {
                const std::size_t part = std::min<std::size_t>(length, m_length - m_have);
                grow(m_have + part);
                if (part != 0)
                    std::memcpy(m_bytes.get() + m_have, bytes, part);
                m_have += part;
                bytes += part;
                length -= part;
                finish(take);
            }
        }
        return true;
    }

private:
    bool check(const char* header) noexcept;
    void grow(std::size_t needed);

    template <class TAKE>
    bool finish(TAKE& take) {
        if (m_header_have == header_size && m_have == m_length) {
            m_is_stopped = !take(frame{m_kind, m_bytes.get(), m_length});
            m_header_have = 0;
            m_have = m_capacity = 0;
            m_bytes.reset();
        } else if (m_have == m_capacity && m_capacity != 0) {
            grow(m_have + 1);
        }
        return !m_is_stopped;
    }

    const uint32 m_longest;
    frame_kind m_kind = frame_kind::message;
    uint32 m_length = 0;
    char m_header[header_size] = {};
    std::size_t m_header_have = 0;
    std::unique_ptr<char[]> m_bytes;
    std::size_t m_have = 0;
    std::size_t m_capacity = 0;
    bool m_is_stopped = false;
};

} // namespace qor::ipc
