// Compressing and decompressing in pieces. Whole runs beside the programs gzip and zstd are in tests/replay.
#include "compression/compressor.h"
#include "compression/decompressor.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace {

using namespace qor::compression;
using namespace std::string_literals;
using outcome = decompressor::outcome;

struct result {
    std::string text;
    outcome last;
    std::uint64_t position;
    bool may_end;
    bool operator==(const result&) const = default;
};

// `in` and `out` bytes at a time.
result decompress(const std::string& data, std::size_t in = 1 << 20, std::size_t out = 1 << 20) {
    decompressor state;
    std::string text;
    std::string room(out, '\0');
    outcome last = outcome::good;
    const char* next = data.data();
    const char* const end = next + data.size();
    while (last == outcome::good) {
        const char* const piece_end = next + std::min<std::size_t>(in, static_cast<std::size_t>(end - next));
        char* made = room.data();
        last = state.convert(next, piece_end, made, room.data() + room.size());
        text.append(room.data(), made);
        // All that went in and all that came out is what it promises. Once more with nothing is no fault.
        if (last == outcome::good && next != piece_end) {
            EXPECT_EQ(made, room.data() + room.size());
        }
        if (next == end && made != room.data() + room.size())
            break;
    }
    for (int i = 0; i < 50; ++i) {
        char* made = room.data();
        EXPECT_EQ(state.convert(next, next, made, room.data() + room.size()), last);
        EXPECT_EQ(made, room.data());
    }
    return {text, last, state.position(), state.is_between_streams()};
}

std::string compress(format which, const std::string& text) {
    compressor state;
    std::string out;
    EXPECT_TRUE(state.start(which, 1)) << state.reason();
    EXPECT_TRUE(state.add(text, compressor::ending::whole, out));
    return out;
}

std::string some_text(std::size_t lines) {
    std::string text;
    for (std::size_t i = 0; i < lines; ++i)
        text += "@ app:[0x" + std::to_string(i * 7919 % 977) + "] + 0x" + std::to_string(i * 48) + " 0x20\n";
    return text;
}

// A zstd frame with blocks that are not compressed, by the description of the form.
std::string zstd_frame(char window, const std::vector<std::string>& blocks) {
    std::string frame = "\x28\xb5\x2f\xfd\0"s + window;
    for (const std::string& block : blocks) {
        const std::size_t head = block.size() << 3 | (&block == &blocks.back());
        frame += {static_cast<char>(head), static_cast<char>(head >> 8), static_cast<char>(head >> 16)};
        frame += block;
    }
    return frame;
}

constexpr char window_128_mib = static_cast<char>(0x88);
constexpr char window_144_mib = static_cast<char>(0x89);

// Of "one\n" and "two\n": what the program gzip 1.12 makes of them, and a frame of zstd.
const std::string gzip_one = "\x1f\x8b\x08\0\0\0\0\0\0\x03\xcb\xcf\x4b\xe5\x02\0\x9f\xa8\x17\xf8\x04\0\0\0"s;
const std::string zstd_two = zstd_frame(0, {"two\n"});

TEST(compression, streams_one_behind_the_other) {
    const std::string skippable = "\x5b\x2a\x4d\x18\3\0\0\0abc"s;
    const struct {
        std::string data, text;
    } cases[] = {
        {"", ""},
        {gzip_one, "one\n"},
        {zstd_two, "two\n"},
        {gzip_one + gzip_one, "one\none\n"},
        {zstd_two + zstd_two, "two\ntwo\n"},
        {gzip_one + zstd_two + gzip_one, "one\ntwo\none\n"},
        {skippable + zstd_two + skippable, "two\n"},
        {skippable, ""},
        {gzip_one + std::string(700, '\0'), "one\n"},
        {gzip_one + "\0\0"s + gzip_one, "one\none\n"},
        {zstd_frame(0, {"a", "", "b"}), "ab"},
    };
    for (const auto& each : cases)
        for (const std::size_t in : {1, 2, 3, 7, 1000})
            for (const std::size_t out : {1, 2, 5, 1000})
                EXPECT_EQ(decompress(each.data, in, out), (result{each.text, outcome::good, each.data.size(), true}))
                    << testing::PrintToString(each.data) << in << " " << out;
}

TEST(compression, data_that_end_early) {
    for (const std::string& data : {gzip_one, zstd_two, zstd_two + gzip_one}) {
        for (std::size_t size = 1; size < data.size(); ++size) {
            const result found = decompress(data.substr(0, size), 3);
            EXPECT_EQ(found.last, outcome::good);
            EXPECT_EQ(found.position, size);
            EXPECT_EQ(found.may_end, data == zstd_two + gzip_one && size == zstd_two.size());
        }
    }
}

TEST(compression, damaged_data) {
    std::string wrong_sum = gzip_one;
    wrong_sum[17] ^= 1;
    std::string wrong_length = gzip_one;
    wrong_length[20] ^= 1;
    std::string wrong_block = gzip_one;
    wrong_block[10] = 7;
    const struct {
        std::string data, text;
        std::uint64_t position;
    } cases[] = {
        {"one\n", "", 0},
        {gzip_one + "one\n", "one\n", gzip_one.size()},
        {gzip_one + "\x1f\x8c", "one\n", gzip_one.size()},
        {zstd_two + "\x28\xb5\x2f\xfe" + zstd_two, "two\n", zstd_two.size()},
        {wrong_sum, "one\n", 20},
        {wrong_length, "one\n", 24},
        {wrong_block, "", 11},
        {zstd_frame(0, {"three\n"}).insert(6, "\x30\0\0four\n!\x06\0\0"s), "four\n!", 15},
    };
    for (const auto& each : cases)
        for (const std::size_t out : {1, 1000})
            EXPECT_EQ(decompress(each.data, 1000, out), (result{each.text, outcome::damaged, each.position, false}))
                << testing::PrintToString(each.data);
}

TEST(compression, a_window_that_is_too_large) {
    EXPECT_EQ(decompress(zstd_frame(window_128_mib, {"a"})).last, outcome::good);
    const result found = decompress(zstd_two + zstd_frame(window_144_mib, {"a"}));
    EXPECT_EQ(found.text, "two\n");
    EXPECT_EQ(found.last, outcome::window_limit);
}

TEST(compression, long_texts_in_all_sizes) {
    const std::string text = some_text(30'000);
    for (const format which : {format::gzip, format::zstd}) {
        const std::string data = compress(which, text);
        EXPECT_LT(data.size(), text.size() / 2);
        for (const std::size_t in : {1u, 1000u, 1u << 20})
            for (const std::size_t out : {100u, 65'536u, 1u << 22})
                EXPECT_TRUE(decompress(data, in, out) == (result{text, outcome::good, data.size(), true}));
        // Cut, all whole blocks are there.
        const result part = decompress(data.substr(0, data.size() / 2));
        EXPECT_TRUE(!part.text.empty() && text.starts_with(part.text));
    }
}

TEST(compression, pieces_can_be_read_once_they_are_flushed) {
    for (const format which : {format::gzip, format::zstd}) {
        compressor state;
        ASSERT_TRUE(state.start(which, 1)) << state.reason();
        std::string out, text;
        for (int i = 0; i < 3; ++i) {
            const std::string piece = some_text(static_cast<std::size_t>(i) * 5000 + 1);
            ASSERT_TRUE(state.add(piece.substr(0, 10), compressor::ending::none, out));
            ASSERT_TRUE(state.add(piece.substr(10), compressor::ending::flush, out));
            text += piece;
            EXPECT_TRUE(decompress(out).text == text);
            ASSERT_TRUE(state.add("", compressor::ending::flush, out));
        }
        ASSERT_TRUE(state.add("end\n", compressor::ending::whole, out));
        EXPECT_TRUE(decompress(out) == (result{text + "end\n", outcome::good, out.size(), true}));
        // Another stream behind it.
        ASSERT_TRUE(state.add("more\n", compressor::ending::whole, out));
        ASSERT_TRUE(state.add("", compressor::ending::whole, out));
        EXPECT_TRUE(decompress(out) == (result{text + "end\nmore\n", outcome::good, out.size(), true}));
    }
}

TEST(compression, a_level_that_does_not_exist) {
    compressor state;
    std::string out;
    EXPECT_FALSE(state.start(format::gzip, 99));
    EXPECT_NE(state.reason().find("it refuses level 99"), std::string::npos) << state.reason();
    EXPECT_FALSE(state.add("a", compressor::ending::whole, out));
}

TEST(compression, signatures) {
    for (const std::string& open : {""s, "\x1f"s, "\x28"s, "\x28\xb5\x2f"s, "P"s, "\x5f\x2a\x4d"s})
        EXPECT_TRUE(recognise(open).is_open);
    for (const std::string& other : {"@"s, "\x1f\x8a"s, "\x28\xb5\x2f\xfe"s, "P\n"s, "\x60"s, "`\x2a\x4d\x18"s})
        EXPECT_TRUE(recognise(other).is == format::none && !recognise(other).is_open);
    EXPECT_TRUE(recognise("\x1f\x8bX").is == format::gzip && !recognise("\x1f\x8bX").is_open);
    EXPECT_TRUE(recognise("\x50\x2a\x4d\x18").is == format::zstd && !recognise("\x50\x2a\x4d\x18").is_open);
}

} // namespace
