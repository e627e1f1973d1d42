// The loops of the strategies, written once over a vector type. They are as plain as they can be: what a programmer
// writes who knows the length and the state of the caches. Everything has internal linkage, because each translation
// unit that includes this file is compiled for another instruction set.
//
// VECTOR has: type, load and store at any address, stream at a multiple of the vector's size, repeat, fence.
#pragma once

#include "memory/strategies.h"

#include <cstdint>

namespace {

constexpr uint64 line = 64, page = 4096;

inline uint64 to_next_line(const char* at) { return -reinterpret_cast<std::uintptr_t>(at) % line; }

template <class VECTOR>
struct loops {
    using type = typename VECTOR::type;
    static constexpr uint64 width = sizeof(type);

    static void copy_vector(char* to, const char* from) { VECTOR::store(to, VECTOR::load(from)); }

    // The last vector overlaps the one before.
    static void copy(char* to, const char* from, uint64 length) {
        uint64 at = 0;
        for (; at + 4 * width <= length; at += 4 * width)
            for (uint64 k = 0; k < 4; ++k)
                copy_vector(to + at + k * width, from + at + k * width);
        for (; at + width <= length; at += width)
            copy_vector(to + at, from + at);
        if (at < length)
            copy_vector(to + length - width, from + length - width);
    }

    static void fill(char* to, char value, uint64 length) {
        const type all = VECTOR::repeat(value);
        uint64 at = 0;
        for (; at + 4 * width <= length; at += 4 * width)
            for (uint64 k = 0; k < 4; ++k)
                VECTOR::store(to + at + k * width, all);
        for (; at + width <= length; at += width)
            VECTOR::store(to + at, all);
        if (at < length)
            VECTOR::store(to + length - width, all);
    }

    static void stream_lines(char* to, const char* from, uint64 count) {
        for (uint64 at = 0; at < count * line; at += width)
            VECTOR::stream(to + at, VECTOR::load(from + at));
    }

    // PAGES pages side by side, two lines of each in turn, so that the memory has that many pages open. AHEAD is the
    // distance of the prefetch, 0 for none.
    template <uint64 PAGES, uint64 AHEAD>
    static void stream_copy(char* to, const char* from, uint64 length) {
        const uint64 head = to_next_line(to);
        copy(to, from, line);
        to += head, from += head, length -= head;
        uint64 at = 0;
        for (; at + PAGES * page <= length; at += PAGES * page)
            for (uint64 within = at; within < at + page; within += 2 * line)
                for (uint64 k = 0; k < PAGES; ++k) {
                    const uint64 here = within + k * page;
                    if constexpr (AHEAD != 0)
                        __builtin_prefetch(from + here + AHEAD), __builtin_prefetch(from + here + AHEAD + line);
                    stream_lines(to + here, from + here, 2);
                }
        for (; at + line <= length; at += line)
            stream_lines(to + at, from + at, 1);
        copy(to + length - line, from + length - line, line);
        VECTOR::fence();
    }

    template <uint64 PAGES>
    static void stream_fill(char* to, char value, uint64 length) {
        const type all = VECTOR::repeat(value);
        const uint64 head = to_next_line(to);
        fill(to, value, line);
        to += head, length -= head;
        uint64 at = 0;
        for (; at + PAGES * page <= length; at += PAGES * page)
            for (uint64 within = at; within < at + page; within += line)
                for (uint64 k = 0; k < PAGES; ++k)
                    for (uint64 part = 0; part < line; part += width)
                        VECTOR::stream(to + within + k * page + part, all);
        for (; at + line <= length; at += line)
            for (uint64 part = 0; part < line; part += width)
                VECTOR::stream(to + at + part, all);
        fill(to + length - line, value, line);
        VECTOR::fence();
    }

    struct names {
        const char *loop, *one, *ahead, *two, *four;
    };

    static void add(std::vector<strategies::strategy>& all, const names& name) {
        all.push_back({name.loop, copy, fill, width});
        all.push_back({name.one, stream_copy<1, 0>, stream_fill<1>, page});
        all.push_back({name.ahead, stream_copy<1, page>, nullptr, page});
        all.push_back({name.two, stream_copy<2, 0>, stream_fill<2>, 2 * page});
        all.push_back({name.four, stream_copy<4, 0>, stream_fill<4>, 4 * page});
    }
};

} // namespace
