// Reading the tables of stack frames, within their bounds.
#pragma once

#include <cstdint>
#include <cstring>

namespace qor::record {

// Encodings of pointers.
constexpr unsigned absolute = 0x00, uleb128 = 0x01, udata2 = 0x02, udata4 = 0x03, udata8 = 0x04, sleb128 = 0x09,
                   sdata2 = 0x0a, sdata4 = 0x0b, sdata8 = 0x0c, relative_to_pc = 0x10, relative_to_header = 0x30,
                   indirect = 0x80, format_bits = 0x0f, base_bits = 0x70;

// Reads within its bounds. A read beyond them gives zeros and marks the cursor as bad.
class cursor {
public:
    cursor(std::uintptr_t begin, std::uintptr_t end) noexcept : m_at(begin), m_end(end), m_good(begin <= end) {
        if (!m_good)
            m_at = m_end;
    }

    bool good() const noexcept { return m_good; }
    bool at_end() const noexcept { return m_at == m_end; }
    std::uintptr_t position() const noexcept { return m_at; }
    std::uintptr_t end() const noexcept { return m_end; }

    void fail() noexcept {
        m_good = false;
        m_at = m_end;
    }

    void skip(std::uint64_t count) noexcept {
        if (count > m_end - m_at)
            fail();
        else
            m_at += count;
    }

    // Forward and back, from where it is.
    void jump(std::int64_t distance, std::uintptr_t begin) noexcept {
        if (distance < 0 ? m_at - begin < static_cast<std::uint64_t>(-distance)
                         : m_end - m_at < static_cast<std::uint64_t>(distance))
            fail();
        else
            m_at += static_cast<std::uintptr_t>(distance);
    }

    template <class NUMBER>
    NUMBER take() noexcept {
        NUMBER result{};
        if (m_end - m_at < sizeof result) {
            fail();
            return result;
        }
        std::memcpy(&result, reinterpret_cast<const void*>(m_at), sizeof result);
        m_at += sizeof result;
        return result;
    }

    std::uint64_t take_uleb() noexcept {
        unsigned bits;
        std::uint8_t last;
        return take_leb(bits, last);
    }

    std::int64_t take_sleb() noexcept {
        unsigned bits;
        std::uint8_t last;
        std::uint64_t result = take_leb(bits, last);
        if (bits < 64 && (last & 0x40) != 0)
            result |= ~std::uint64_t{0} << bits;
        return static_cast<std::int64_t>(result);
    }

    std::uintptr_t take_pointer(unsigned encoding, std::uintptr_t header) noexcept {
        const std::uintptr_t place = m_at;
        std::uintptr_t result = 0;
        switch (encoding & format_bits) {
        case absolute:
        case udata8:
        case sdata8:
            result = take<std::uint64_t>();
            break;
        case uleb128:
            result = take_uleb();
            break;
        case udata2:
            result = take<std::uint16_t>();
            break;
        case udata4:
            result = take<std::uint32_t>();
            break;
        case sleb128:
            result = static_cast<std::uintptr_t>(take_sleb());
            break;
        case sdata2:
            result = static_cast<std::uintptr_t>(std::int64_t{take<std::int16_t>()});
            break;
        case sdata4:
            result = static_cast<std::uintptr_t>(std::int64_t{take<std::int32_t>()});
            break;
        default:
            fail();
        }
        if ((encoding & base_bits) == relative_to_pc)
            result += place;
        else if ((encoding & base_bits) == relative_to_header && header != 0)
            result += header;
        else if ((encoding & base_bits) != 0)
            fail();
        return result;
    }

private:
    std::uint64_t take_leb(unsigned& bits, std::uint8_t& last) noexcept {
        std::uint64_t result = 0;
        bits = 0;
        do {
            last = take<std::uint8_t>();
            if (bits < 64)
                result |= static_cast<std::uint64_t>(last & 0x7f) << bits;
            bits += 7;
        } while ((last & 0x80) != 0);
        return result;
    }

    std::uintptr_t m_at;
    std::uintptr_t m_end;
    bool m_good;
};

} // namespace qor::record
