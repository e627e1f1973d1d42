// Inside the SIMD routines: the kernels, written once over a vector type. Each instruction set has its own translation
// unit that is compiled for that set and includes this file. Everything here has internal linkage: of a shared inline
// function, the linker would keep one unit's version, perhaps one that this processor cannot run.
//
// VECTOR::type has these operations: load and store at any address, store_aligned at a multiple of the vector's size,
// stream (stores two vectors past the caches, at a multiple of their size), repeat (makes the vector of a pattern) and
// fence (orders streamed stores before later ones).
#pragma once

#include "simd/pattern.h"
#include "simd/simd.h"

#include <cstdint>

namespace {

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
    static void copy_half(char* to, const char* from) noexcept {
        const type a = VECTOR::load(from), b = VECTOR::load(from + width);
        VECTOR::store(to, a), VECTOR::store(to + width, b);
    }
    static void fill_half(char* to, type value) noexcept { VECTOR::store(to, value), VECTOR::store(to + width, value); }
    static void fill_block(char* to, type value) noexcept { fill_half(to, value), fill_half(to + 2 * width, value); }

    static void copy_one(char* to, const char* from) noexcept { VECTOR::store(to, VECTOR::load(from)); }

    // The distance to the next multiple of `size`. Never 0, so that the head is always one whole piece.
    static uint64 to_next(const char* at, uint64 size) noexcept {
        return size - (reinterpret_cast<std::uintptr_t>(at) & (size - 1));
    }

    // A load waits for an earlier store if their addresses agree modulo 4096, because the processor mistakes it for
    // dependent. If the destination is shortly ahead of the source modulo 4096, this happens in every round of a
    // forward copy, but never in a backward copy. A copy that does not fit the first-level cache waits for the second
    // level anyway, and that one prefers the forward direction.
    static bool runs_ahead(const char* to, const char* from, uint64 length) noexcept {
        const uint64 ahead = static_cast<uint64>(to - from) % 4096;
        return ahead != 0 && ahead < 1024 && length <= 16384;
    }

    static void copy(void* destination, const void* source, uint64 length) noexcept {
        char* to = static_cast<char*>(destination);
        const char* from = static_cast<const char*>(source);
        char* const last_to = to + length - block;
        const char* const last_from = from + length - block;
        if (length <= 2 * width) {
            const type a = VECTOR::load(from), b = VECTOR::load(last_from + 3 * width);
            VECTOR::store(to, a), VECTOR::store(last_to + 3 * width, b);
        } else if (length <= block) {
            copy_half(to, from);
            copy_half(last_to + 2 * width, last_from + 2 * width);
        } else if (length <= 2 * block) {
            copy_block(to, from);
            copy_block(last_to, last_from);
        } else if (!runs_ahead(to, from, length)) {
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

    // Stores a piece past the caches, at a multiple of `line`.
    static constexpr uint64 line = qor::simd::alignment;
    static constexpr uint64 piece = 2 * line > block ? 2 * line : block;
    static void stream_piece(char* to, const char* from) noexcept {
        for (uint64 at = 0; at < piece; at += 2 * width) {
            const type a = VECTOR::load(from + at), b = VECTOR::load(from + at + width);
            VECTOR::stream(to + at, a, b);
        }
    }

    // Copies what lies before the first line of the destination, and returns its size.
    static uint64 copy_head(char* to, const char* from) noexcept {
        for (uint64 at = 0; at < line; at += width)
            copy_one(to + at, from + at);
        return to_next(to, line);
    }

    // Prefetches four kilobytes ahead: the processor's own prefetcher stops at the end of a page.
    static void stream_copy(void* destination, const void* source, uint64 length) noexcept {
        char* to = static_cast<char*>(destination);
        const char* from = static_cast<const char*>(source);
        char* const last_to = to + length - block;
        const char* const last_from = from + length - block;
        const uint64 head = copy_head(to, from);
        stream_to_end(to + head, from + head, last_to, last_from);
    }

    static void stream_to_end(char* to, const char* from, char* last_to, const char* last_from) noexcept {
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

    // A piece of each of four pages in turn: the prefetcher follows each of them, and the memory has more to do at
    // once.
    static constexpr uint64 page = 4096, pages = 4;
    static void stream_pages(void* destination, const void* source, uint64 length) noexcept {
        char* to = static_cast<char*>(destination);
        const char* from = static_cast<const char*>(source);
        char* const last_to = to + length - block;
        const char* const last_from = from + length - block;
        const uint64 head = copy_head(to, from);
        for (to += head, from += head; to + pages * page <= last_to; to += pages * page, from += pages * page)
            for (uint64 at = 0; at < page; at += piece)
                for (uint64 one = at; one < pages * page; one += page)
                    stream_piece(to + one, from + one);
        stream_to_end(to, from, last_to, last_from);
    }

    static void fill(void* destination, uint64 pattern, uint64 length) noexcept {
        char* to = static_cast<char*>(destination);
        char* const last = to + length - block;
        const type begin = VECTOR::repeat(pattern);
        const type end = VECTOR::repeat(go_on(pattern, length));
        if (length <= 2 * width) {
            VECTOR::store(to, begin);
            VECTOR::store(last + 3 * width, end);
        } else if (length <= block) {
            fill_half(to, begin);
            fill_half(last + 2 * width, end);
        } else if (length <= 2 * block) {
            fill_block(to, begin);
            fill_block(last, end);
        } else {
            VECTOR::store(to, begin);
            const uint64 head = to_next(to, width);
            const type middle = VECTOR::repeat(go_on(pattern, head));
            for (to += head; to < last; to += block) {
                VECTOR::store_aligned(to, middle), VECTOR::store_aligned(to + width, middle);
                VECTOR::store_aligned(to + 2 * width, middle), VECTOR::store_aligned(to + 3 * width, middle);
            }
            fill_block(last, end);
        }
    }

    static void stream_fill(void* destination, uint64 pattern, uint64 length) noexcept {
        char* to = static_cast<char*>(destination);
        char* const last = to + length - block;
        const type begin = VECTOR::repeat(pattern);
        for (uint64 at = 0; at < line; at += width)
            VECTOR::store(to + at, begin);
        const uint64 head = to_next(to, line);
        const type middle = VECTOR::repeat(go_on(pattern, head));
        for (to += head; to < last; to += block) {
            VECTOR::stream(to, middle, middle), VECTOR::stream(to + 2 * width, middle, middle);
        }
        fill_block(last, VECTOR::repeat(go_on(pattern, length)));
        VECTOR::fence();
    }

    static constexpr qor::simd::instruction_set set(const char* name) noexcept {
        return {name, copy, fill, stream_copy, stream_pages, stream_fill};
    }
};

} // namespace
