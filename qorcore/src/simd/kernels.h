// Inside the SIMD routines: the kernels, written once over a vector type. Each instruction set has its own translation
// unit that is compiled for that set and includes this file. Everything here has internal linkage: of a shared inline
// function, the linker would keep one unit's version, perhaps one that this processor cannot run.
//
// VECTOR::type has these operations: load and store at any address, store_aligned at a multiple of the vector's size,
// stream (stores two vectors past the caches, at a multiple of their size), repeat (makes the vector of a pattern) and
// fence (orders streamed stores before later ones). VECTOR::half has the same for vectors of 32 bytes, if its own are
// wider; else it is VECTOR.
#pragma once

#include "simd/pattern.h"
#include "simd/simd.h"

#include <cstdint>
#include <cstring>

namespace {

// ---- up to 32 bytes: pieces from both ends, which may overlap in the middle
struct piece {
    uint64 words[2];
};

template <class TYPE>
TYPE get(const char* from) noexcept {
    TYPE value;
    std::memcpy(&value, from, sizeof value);
    return value;
}

template <class TYPE>
void put(char* to, const TYPE& value) noexcept {
    std::memcpy(to, &value, sizeof value);
}

// Two pieces cover any length from one piece to two.
template <class TYPE>
void copy_ends(char* to, const char* from, uint64 length) noexcept {
    const TYPE first = get<TYPE>(from);
    const TYPE last = get<TYPE>(from + length - sizeof(TYPE));
    put(to, first);
    put(to + length - sizeof(TYPE), last);
}

// Stores the beginning of the pattern at the front, and its continuation at the end.
template <class TYPE>
void fill_ends(char* to, uint64 pattern, uint64 length) noexcept {
    const uint64 end = go_on(pattern, length - sizeof(TYPE));
    std::memcpy(to, &pattern, sizeof(TYPE));
    std::memcpy(to + length - sizeof(TYPE), &end, sizeof(TYPE));
}

template <class VECTOR>
struct kernels {
    using type = typename VECTOR::type;
    static constexpr uint64 width = sizeof(type);
    static constexpr uint64 block = 4 * width;
    static_assert(qor::simd::small_limit >= width && qor::simd::stream_minimum >= block);

    // ---- blocks of four vectors or two, at any address
    static void copy_block(char* to, const char* from) noexcept {
        const type a = VECTOR::load(from), b = VECTOR::load(from + width);
        const type c = VECTOR::load(from + 2 * width), d = VECTOR::load(from + 3 * width);
        VECTOR::store(to, a), VECTOR::store(to + width, b);
        VECTOR::store(to + 2 * width, c), VECTOR::store(to + 3 * width, d);
    }
    static void copy_pair(char* to, const char* from) noexcept {
        const type a = VECTOR::load(from), b = VECTOR::load(from + width);
        VECTOR::store(to, a), VECTOR::store(to + width, b);
    }
    static void fill_pair(char* to, type value) noexcept { VECTOR::store(to, value), VECTOR::store(to + width, value); }
    static void fill_block(char* to, type value) noexcept { fill_pair(to, value), fill_pair(to + 2 * width, value); }

    static void copy_one(char* to, const char* from) noexcept { VECTOR::store(to, VECTOR::load(from)); }

    // The distance to the next multiple of `size`. Never 0, so that the head is always one whole piece.
    static uint64 to_next(const char* at, uint64 size) noexcept {
        return size - (reinterpret_cast<std::uintptr_t>(at) & (size - 1));
    }

    // ---- any length
    // The hints control the code layout: a taken jump costs about one of eight cycles.
    static void copy(void* destination, const void* source, uint64 length) noexcept {
        char* to = static_cast<char*>(destination);
        const char* from = static_cast<const char*>(source);
        if (length <= qor::simd::small_limit) [[likely]] {
            if (length >= sizeof(piece)) [[likely]] {
                if (length <= 2 * sizeof(piece)) [[likely]]
                    return copy_ends<piece>(to, from, length);
                copy_up_to_64(to, from, length);
            } else if (length >= 8) [[likely]] {
                copy_ends<uint64>(to, from, length);
            } else if (length >= 4) {
                copy_ends<uint32>(to, from, length);
            } else if (length >= 2) {
                copy_ends<uint16>(to, from, length);
            } else if (length != 0) {
                *to = *from;
            }
        } else if (length <= 2 * block) [[likely]] {
            copy_medium(to, from, length);
        } else {
            copy_long(to, from, length);
        }
    }

    static void copy_up_to_64(char* to, const char* from, uint64 length) noexcept {
        using half = typename VECTOR::half;
        constexpr uint64 half_width = sizeof(typename half::type);
        if constexpr (half_width == 32) {
            const auto a = half::load(from), b = half::load(from + length - half_width);
            half::store(to, a), half::store(to + length - half_width, b);
        } else {
            const char* const last = from + length - 2 * width;
            const type a = VECTOR::load(from), b = VECTOR::load(from + width);
            const type c = VECTOR::load(last), d = VECTOR::load(last + width);
            VECTOR::store(to, a), VECTOR::store(to + width, b);
            VECTOR::store(to + length - 2 * width, c), VECTOR::store(to + length - width, d);
        }
    }

    static void copy_medium(char* to, const char* from, uint64 length) noexcept {
        char* const end_to = to + length;
        const char* const end_from = from + length;
        if (length <= 2 * width) [[likely]] {
            const type a = VECTOR::load(from), b = VECTOR::load(end_from - width);
            VECTOR::store(to, a), VECTOR::store(end_to - width, b);
        } else if (length <= block) [[likely]] {
            const type a = VECTOR::load(from), b = VECTOR::load(from + width);
            const type c = VECTOR::load(end_from - 2 * width), d = VECTOR::load(end_from - width);
            VECTOR::store(to, a), VECTOR::store(to + width, b);
            VECTOR::store(end_to - 2 * width, c), VECTOR::store(end_to - width, d);
        } else {
            copy_block(to, from);
            copy_block(end_to - block, end_from - block);
        }
    }

    static void copy_long(char* to, const char* from, uint64 length) noexcept {
        if (length >= qor::simd::large_copy_from.load(std::memory_order_acquire)) [[unlikely]]
            return qor::simd::copy_large(to, from, length);
        copy_loop(to, from, length);
    }

    // A load waits for an earlier store if their addresses agree modulo 4096, because the processor mistakes it for
    // dependent. If the destination is shortly ahead of the source modulo 4096, this happens in every round of a
    // forward copy, but never in a backward copy. A copy that does not fit the first-level cache waits for the second
    // level anyway, and that one prefers the forward direction.
    static bool runs_ahead(const char* to, const char* from, uint64 length) noexcept {
        const uint64 ahead = static_cast<uint64>(to - from) % 4096;
        return ahead != 0 && ahead < 1024 && length <= 16384;
    }

    static void copy_loop(void* destination, const void* source, uint64 length) noexcept {
        char* to = static_cast<char*>(destination);
        const char* from = static_cast<const char*>(source);
        if (length <= 2 * block)
            return copy(to, from, length);
        char* const last_to = to + length - block;
        const char* const last_from = from + length - block;
        if (!runs_ahead(to, from, length)) {
            copy_one(to, from);
            const uint64 head = to_next(to, width);
            for (to += head, from += head; to < last_to; to += block, from += block)
                copy_block_aligned(to, from);
            copy_block(last_to, last_from);
        } else {
            copy_one(last_to + 3 * width, last_from + 3 * width);
            const uint64 tail = width - to_next(last_to, width);
            char* at = last_to - tail;
            for (const char* with = last_from - tail; at > to; at -= block, with -= block)
                copy_block_aligned(at, with);
            copy_block(to, from);
        }
    }

    static void copy_block_aligned(char* to, const char* from) noexcept {
        const type a = VECTOR::load(from), b = VECTOR::load(from + width);
        const type c = VECTOR::load(from + 2 * width), d = VECTOR::load(from + 3 * width);
        VECTOR::store_aligned(to, a), VECTOR::store_aligned(to + width, b);
        VECTOR::store_aligned(to + 2 * width, c), VECTOR::store_aligned(to + 3 * width, d);
    }

    static void fill(void* destination, uint64 pattern, uint64 length) noexcept {
        fill_any(destination, pattern, length);
    }

    // Inline, because a pattern of zeros takes much less work if the compiler knows it.
    [[gnu::always_inline]] static void fill_any(void* destination, uint64 pattern, uint64 length) noexcept {
        char* to = static_cast<char*>(destination);
        if (length <= qor::simd::small_limit) [[likely]] {
            if (length >= sizeof(piece)) [[likely]] {
                const piece begin{{pattern, pattern}};
                const uint64 phase = go_on(pattern, length);
                const piece end{{phase, phase}};
                char* const last = to + length - sizeof(piece);
                if (length > 2 * sizeof(piece))
                    put(to + sizeof(piece), begin), put(last - sizeof(piece), end);
                put(to, begin), put(last, end);
            } else if (length >= 8) {
                fill_ends<uint64>(to, pattern, length);
            } else if (length >= 4) {
                fill_ends<uint32>(to, pattern, length);
            } else if (length >= 2) {
                fill_ends<uint16>(to, pattern, length);
            } else if (length != 0) {
                std::memcpy(to, &pattern, 1);
            }
        } else if (length <= 2 * block) [[likely]] {
            char* const last = to + length - block;
            const type begin = VECTOR::repeat(pattern);
            const type end = VECTOR::repeat(go_on(pattern, length));
            if (length <= 2 * width) [[likely]] {
                VECTOR::store(to, begin);
                VECTOR::store(last + 3 * width, end);
            } else if (length <= block) [[likely]] {
                fill_pair(to, begin);
                fill_pair(last + 2 * width, end);
            } else {
                fill_block(to, begin);
                fill_block(last, end);
            }
        } else {
            fill_long(to, pattern, length);
        }
    }

    static void fill_long(char* to, uint64 pattern, uint64 length) noexcept {
        if (length >= qor::simd::large_fill_from.load(std::memory_order_acquire)) [[unlikely]]
            return qor::simd::fill_large(to, pattern, length);
        fill_loop(to, pattern, length);
    }

    static void fill_loop(void* destination, uint64 pattern, uint64 length) noexcept {
        char* to = static_cast<char*>(destination);
        if (length <= 2 * block)
            return fill(to, pattern, length);
        char* const last = to + length - block;
        VECTOR::store(to, VECTOR::repeat(pattern));
        const uint64 head = to_next(to, width);
        const type middle = VECTOR::repeat(go_on(pattern, head));
        for (to += head; to < last; to += block) {
            VECTOR::store_aligned(to, middle), VECTOR::store_aligned(to + width, middle);
            VECTOR::store_aligned(to + 2 * width, middle), VECTOR::store_aligned(to + 3 * width, middle);
        }
        fill_block(last, VECTOR::repeat(go_on(pattern, length)));
    }

    // ---- past the caches, for at least stream_minimum bytes
    static constexpr uint64 line = qor::simd::alignment;
    static constexpr uint64 strip = 2 * line > block ? 2 * line : block;

    // Copies what lies before the first line of the destination, and returns its size.
    static uint64 copy_head(char* to, const char* from) noexcept {
        for (uint64 at = 0; at < line; at += width)
            copy_one(to + at, from + at);
        return to_next(to, line);
    }

    static void stream_strip(char* to, const char* from) noexcept {
        for (uint64 at = 0; at < strip; at += 2 * width) {
            const type a = VECTOR::load(from + at), b = VECTOR::load(from + at + width);
            VECTOR::stream(to + at, a, b);
        }
    }

    // Prefetches four kilobytes ahead: the processor's own prefetcher stops at the end of a page.
    static void stream_copy(void* destination, const void* source, uint64 length) noexcept {
        char* to = static_cast<char*>(destination);
        const char* from = static_cast<const char*>(source);
        const uint64 head = copy_head(to, from);
        stream_to_end(to + head, from + head, length - head);
    }

    static void stream_to_end(char* to, const char* from, uint64 length) noexcept {
        char* const last_to = to + length - block;
        const char* const last_from = from + length - block;
        for (; to < last_to; to += block, from += block) {
            for (uint64 at = 0; at < block; at += line)
                __builtin_prefetch(from + page + at);
            const type a = VECTOR::load(from), b = VECTOR::load(from + width);
            const type c = VECTOR::load(from + 2 * width), d = VECTOR::load(from + 3 * width);
            VECTOR::stream(to, a, b), VECTOR::stream(to + 2 * width, c, d);
        }
        copy_block(last_to, last_from);
        VECTOR::fence();
    }

    // A strip of each of four pages in turn: the prefetcher follows each of them, and the memory has more to do at
    // once.
    static constexpr uint64 page = 4096, pages = 4;
    static void stream_pages(void* destination, const void* source, uint64 length) noexcept {
        char* to = static_cast<char*>(destination);
        const char* from = static_cast<const char*>(source);
        const uint64 head = copy_head(to, from);
        for (to += head, from += head, length -= head; length > pages * page + block; length -= pages * page) {
            for (uint64 at = 0; at < page; at += strip)
                for (uint64 one = at; one < pages * page; one += page)
                    stream_strip(to + one, from + one);
            to += pages * page, from += pages * page;
        }
        stream_to_end(to, from, length);
    }

    static void stream_fill(void* destination, uint64 pattern, uint64 length) noexcept {
        char* to = static_cast<char*>(destination);
        char* const last = to + length - block;
        const type begin = VECTOR::repeat(pattern);
        for (uint64 at = 0; at < line; at += width)
            VECTOR::store(to + at, begin);
        const uint64 head = to_next(to, line);
        const type middle = VECTOR::repeat(go_on(pattern, head));
        for (to += head; to < last; to += block)
            VECTOR::stream(to, middle, middle), VECTOR::stream(to + 2 * width, middle, middle);
        fill_block(last, VECTOR::repeat(go_on(pattern, length)));
        VECTOR::fence();
    }

    // ---- the rows of the table
    static void zero(void* dst, uint64 length) noexcept { fill_any(dst, 0, length); }
    static void memset_u8(void* dst, uint8 value, uint64 length) noexcept {
        fill(dst, value * uint64{0x0101010101010101}, length);
    }
    static void memset_u16(void* dst, uint16 value, uint64 length) noexcept {
        fill(dst, value * uint64{0x0001000100010001}, length);
    }
    static void memset_u32(void* dst, uint32 value, uint64 length) noexcept {
        fill(dst, value * uint64{0x0000000100000001}, length);
    }

    static constexpr qor::simd::entry_points rows() noexcept {
        // Alignment would save a single store. That does not justify a second set of kernels, which would fault on
        // misaligned addresses.
        return {zero, memset_u8, memset_u16, memset_u32, fill, copy, copy};
    }

    static constexpr qor::simd::instruction_set set(const char* name) noexcept {
        return {name, rows(), copy_loop, fill_loop, stream_copy, stream_pages, stream_fill};
    }
};

} // namespace
