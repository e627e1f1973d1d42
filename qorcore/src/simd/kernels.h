// Inside the SIMD routines: the kernels, written once over a vector type. Each instruction set has its own translation
// unit that is compiled for that set and includes this file. Everything here has internal linkage: of a shared inline
// function, the linker would keep one unit's version, perhaps one that this processor cannot run.
//
// VECTOR::type has these operations: load and store at any address, store_aligned at a multiple of the vector's size,
// stream (stores two vectors past the caches, at a multiple of their size), repeat (makes the vector of a pattern) and
// fence (orders streamed stores before later ones). VECTOR::half has load, store and repeat for vectors of 32 bytes, if
// its own are wider; else it is VECTOR. VECTOR::store_some and copy_some store the first bytes of a
// vector, if a set can.
#pragma once

#include "simd/pattern.h"
#include "simd/simd.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <utility>

namespace {

// Fewer bytes than a vector has, with its operations.
template <class TYPE>
struct scalar {
    using type = TYPE;
    static type load(const char* from) noexcept {
        type value;
        std::memcpy(&value, from, sizeof value);
        return value;
    }
    static void store(char* to, const type& value) noexcept { std::memcpy(to, &value, sizeof value); }
    static type repeat(uint64 pattern) noexcept {
        const uint64 all[] = {pattern, pattern};
        return load(reinterpret_cast<const char*>(all));
    }
};
struct two_words {
    uint64 words[2];
};

// COUNT pieces at each end, which may overlap in the middle: any length from COUNT pieces to twice as many. All loads
// come before the first store.
template <class PIECE, uint64 COUNT = 1>
void copy_ends(char* to, const char* from, uint64 length) noexcept {
    constexpr uint64 width = sizeof(typename PIECE::type);
    [&]<uint64... AT>(std::integer_sequence<uint64, AT...>) {
        const char* const last = from + length - COUNT * width;
        const typename PIECE::type front[] = {PIECE::load(from + AT * width)...};
        const typename PIECE::type back[] = {PIECE::load(last + AT * width)...};
        (PIECE::store(to + AT * width, front[AT]), ...);
        (PIECE::store(to + length - (COUNT - AT) * width, back[AT]), ...);
    }
    (std::make_integer_sequence<uint64, COUNT>());
}

// The same for a fill.
template <class PIECE, uint64 COUNT = 1>
void fill_ends(char* to, uint64 pattern, uint64 length) noexcept {
    constexpr uint64 width = sizeof(typename PIECE::type);
    [&]<uint64... AT>(std::integer_sequence<uint64, AT...>) {
        const typename PIECE::type front = PIECE::repeat(pattern);
        const typename PIECE::type back = PIECE::repeat(go_on(pattern, length - width % 8));
        (PIECE::store(to + AT * width, front), ...);
        (PIECE::store(to + length - (COUNT - AT) * width, back), ...);
    }
    (std::make_integer_sequence<uint64, COUNT>());
}

// One to three bytes: the first, the middle one and the last, of which some are the same.
inline void copy_up_to_3(char* to, const char* from, uint64 length) noexcept {
    const char first = from[0], middle = from[length / 2], last = from[length - 1];
    to[0] = first, to[length / 2] = middle, to[length - 1] = last;
}
inline void fill_up_to_3(char* to, uint64 pattern, uint64 length) noexcept {
    for (const uint64 at : {uint64{0}, length / 2, length - 1})
        scalar<char>::store(to + at, scalar<char>::repeat(go_on(pattern, at)));
}

template <class VECTOR>
struct kernels {
    using type = typename VECTOR::type;
    static constexpr uint64 width = sizeof(type);
    static constexpr uint64 block = 4 * width;
    static constexpr uint64 page = 4096;
    using half = typename VECTOR::half;
    static constexpr uint64 half_width = sizeof(typename half::type);
    static_assert(qor::simd::small_limit >= width && qor::simd::stream_minimum >= block);

    // ---- blocks of four vectors or two, at any address
    static void copy_block(char* to, const char* from) noexcept {
        const type a = VECTOR::load(from), b = VECTOR::load(from + width);
        const type c = VECTOR::load(from + 2 * width), d = VECTOR::load(from + 3 * width);
        VECTOR::store(to, a), VECTOR::store(to + width, b);
        VECTOR::store(to + 2 * width, c), VECTOR::store(to + 3 * width, d);
    }
    static void fill_block(char* to, type value) noexcept {
        VECTOR::store(to, value), VECTOR::store(to + width, value);
        VECTOR::store(to + 2 * width, value), VECTOR::store(to + 3 * width, value);
    }

    static void copy_one(char* to, const char* from) noexcept { VECTOR::store(to, VECTOR::load(from)); }

    // The distances from the last and to the next multiple of `size`. The latter is never 0, so that the head is always
    // one whole piece.
    static uint64 since_last(const char* at, uint64 size) noexcept {
        return reinterpret_cast<std::uintptr_t>(at) & (size - 1);
    }
    static uint64 to_next(const char* at, uint64 size) noexcept { return size - since_last(at, size); }

    // ---- any length
    // The hints control the code layout: the lengths of which most time is spent come without a taken jump.
    static void copy(void* destination, const void* source, uint64 length) noexcept {
        char* to = static_cast<char*>(destination);
        const char* from = static_cast<const char*>(source);
        __builtin_prefetch(to, 1);
        // One comparison for a range: the lengths below it wrap around.
        if (length - 16 <= 32 - 16) [[likely]]
            return copy_ends<scalar<two_words>>(to, from, length);
        if (length <= 64) [[likely]] {
            if (length >= 16) [[likely]]
                copy_ends<half, 32 / half_width>(to, from, length);
            else if (length >= 8) [[likely]]
                copy_ends<scalar<uint64>>(to, from, length);
            else if (length >= 4) [[likely]]
                copy_ends<scalar<uint32>>(to, from, length);
            else if (length != 0)
                copy_up_to_3(to, from, length);
            return;
        }
        if (length <= 128) [[likely]]
            return copy_ends<VECTOR, 64 / width>(to, from, length);
        if constexpr (2 * block >= 256)
            if (length <= 256) [[likely]]
                return copy_ends<VECTOR, 128 / width>(to, from, length);
        if constexpr (2 * block >= 512)
            if (length <= 512) [[likely]]
                return copy_ends<VECTOR, 256 / width>(to, from, length);
        if (length >= qor::simd::large_copy_from.load(std::memory_order_acquire)) [[unlikely]]
            return qor::simd::copy_large(to, from, length);
        copy_blocks(to, from, length);
    }

    // The processor takes long to find out that it need not store a part of a vector that lies in a page of others.
    static bool is_near_end_of_page(const char* at) noexcept {
        return reinterpret_cast<std::uintptr_t>(at) % page > page - width;
    }

    static void copy_loop(void* destination, const void* source, uint64 length) noexcept {
        if (length <= 2 * block)
            return copy(destination, source, length);
        copy_blocks(static_cast<char*>(destination), static_cast<const char*>(source), length);
    }

    struct four {
        type a, b, c, d;
    };
    static four load_block(const char* from) noexcept {
        return {VECTOR::load(from), VECTOR::load(from + width), VECTOR::load(from + 2 * width),
                VECTOR::load(from + 3 * width)};
    }
    static void store_block_aligned(char* to, const four& of) noexcept {
        VECTOR::store_aligned(to, of.a), VECTOR::store_aligned(to + width, of.b);
        VECTOR::store_aligned(to + 2 * width, of.c), VECTOR::store_aligned(to + 3 * width, of.d);
    }

    // More than two blocks: a vector at each end, and between them whole blocks whose stores are aligned, of which the
    // last may overlap the one before it.
    //
    // Each block is loaded before the one ahead of it is stored. A load waits for an earlier store if their addresses
    // agree modulo 4096, because the processor mistakes it for dependent; so it would wait in every round if the
    // destination is shortly ahead of the source modulo 4096, as it is for two pages at small offsets.
    [[gnu::always_inline]] static void copy_blocks(char* to, const char* from, uint64 length) noexcept {
        const uint64 over = since_last(to + length, width);
        const uint64 last = length - over - block;
        uint64 at = to_next(to, width);
        copy_one(to, from);
        four current = load_block(from + at);
        for (; at < last; at += block) {
            const four next = load_block(from + std::min(at + block, last));
            store_block_aligned(to + at, current);
            current = next;
        }
        store_block_aligned(to + last, current);
        // A store that ends in another page than it begins takes thirty times as long as others.
        if constexpr (requires { &VECTOR::copy_some; })
            VECTOR::copy_some(to + length - over, from + length - over, over);
        else
            copy_one(to + length - width, from + length - width);
    }

    static void fill(void* destination, uint64 pattern, uint64 length) noexcept {
        fill_any(destination, pattern, length);
    }

    // Inline, because a pattern of zeros takes much less work if the compiler knows it.
    [[gnu::always_inline]] static void fill_any(void* destination, uint64 pattern, uint64 length) noexcept {
        char* to = static_cast<char*>(destination);
        __builtin_prefetch(to, 1);
        if (length >= 64) [[likely]] {
            if (length <= 128) [[likely]]
                return fill_ends<VECTOR, 64 / width>(to, pattern, length);
            if constexpr (2 * block >= 256)
                if (length <= 256) [[likely]]
                    return fill_ends<VECTOR, 128 / width>(to, pattern, length);
            if constexpr (2 * block >= 512)
                if (length <= 512) [[likely]]
                    return fill_ends<VECTOR, 256 / width>(to, pattern, length);
            if (length >= qor::simd::large_fill_from.load(std::memory_order_acquire)) [[unlikely]]
                return qor::simd::fill_large(to, pattern, length);
            fill_blocks(to, pattern, length);
        } else {
            fill_short(to, pattern, length);
        }
    }

    [[gnu::always_inline]] static void fill_short(char* to, uint64 pattern, uint64 length) noexcept {
        if constexpr (requires { &VECTOR::store_some; })
            if (!is_near_end_of_page(to)) [[likely]]
                return VECTOR::store_some(to, VECTOR::repeat(pattern), length);
        if (length >= 32) [[likely]] {
            fill_ends<half, 32 / half_width>(to, pattern, length);
        } else if (length >= 16) [[likely]] {
            fill_ends<scalar<two_words>>(to, pattern, length);
        } else if (length >= 8) [[likely]] {
            fill_ends<scalar<uint64>>(to, pattern, length);
        } else if (length >= 4) [[likely]] {
            fill_ends<scalar<uint32>>(to, pattern, length);
        } else if (length != 0) {
            fill_up_to_3(to, pattern, length);
        }
    }

    static void fill_loop(void* destination, uint64 pattern, uint64 length) noexcept {
        if (length <= 2 * block)
            return fill(destination, pattern, length);
        fill_blocks(static_cast<char*>(destination), pattern, length);
    }

    [[gnu::always_inline]] static void fill_blocks(char* to, uint64 pattern, uint64 length) noexcept {
        VECTOR::store(to, VECTOR::repeat(pattern));
        const uint64 first = to_next(to, width);
        const uint64 over = since_last(to + length, width);
        const type middle = VECTOR::repeat(go_on(pattern, first));
        const uint64 last = length - over - block;
        for (uint64 at = first; at < last; at += block)
            fill_block_aligned(to + at, middle);
        fill_block_aligned(to + last, middle);
        if constexpr (requires { &VECTOR::store_some; })
            VECTOR::store_some(to + length - over, middle, over);
        else
            VECTOR::store(to + length - width, VECTOR::repeat(go_on(pattern, length)));
    }

    static void fill_block_aligned(char* to, type value) noexcept {
        VECTOR::store_aligned(to, value), VECTOR::store_aligned(to + width, value);
        VECTOR::store_aligned(to + 2 * width, value), VECTOR::store_aligned(to + 3 * width, value);
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
    static constexpr uint64 pages = 4;
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
