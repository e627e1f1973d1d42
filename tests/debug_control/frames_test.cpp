// Frames and payloads, byte for byte as in docs/debug-control.md.
#include "channel/debug_frames.h"

#include <gtest/gtest.h>

namespace {

using namespace qor::control;
using result = frame_reader::result;

std::string bytes(std::initializer_list<int> all) {
    std::string out;
    for (const int each : all)
        out += static_cast<char>(each);
    return out;
}

TEST(frames, look_as_documented) {
    std::string out;
    append_frame(out, frame_type::enable_code, 0x01020304, "\1abc");
    EXPECT_EQ(out, bytes({0, 0, 0, 4, 0, 5, 0, 0, 1, 2, 3, 4, 1, 'a', 'b', 'c'}));
    EXPECT_EQ(answer_to(frame_type::enable_code), frame_type::enable_code_answer);
}

TEST(frames, are_found_in_any_pieces) {
    std::string wire;
    append_frame(wire, frame_type::heartbeat, 0, {});
    append_frame(wire, frame_type::login_first, 7, std::string(300, 'x'));
    append_frame(wire, frame_type::get_codes, 8, "1234");
    for (std::size_t piece = 1; piece <= wire.size(); ++piece) {
        frame_reader reader;
        frame found;
        std::string seen;
        for (std::size_t at = 0; at < wire.size(); at += piece) {
            reader.add(std::string_view(wire).substr(at, piece));
            while (reader.next(found) == result::frame)
                append_frame(seen, found.type, found.request, found.payload);
        }
        ASSERT_EQ(seen, wire) << piece;
        EXPECT_FALSE(reader.is_within());
    }
}

TEST(frames, a_frame_that_is_not_whole_is_waited_for) {
    std::string wire;
    append_frame(wire, frame_type::get_codes, 8, "1234");
    frame_reader reader;
    frame found;
    reader.add(wire.substr(0, wire.size() - 1));
    EXPECT_EQ(reader.next(found), result::nothing);
    EXPECT_TRUE(reader.is_within());
}

TEST(frames, have_a_limit) {
    for (const uint32 limit : {payload_limit_before_login, payload_limit}) {
        frame found;
        frame_reader fits;
        fits.set_limit(limit);
        std::string wire;
        append_frame(wire, frame_type::login_first, 1, std::string(limit, 'x'));
        fits.add(wire);
        EXPECT_EQ(fits.next(found), result::frame);
        EXPECT_EQ(found.payload.size(), limit);

        // The length alone shows the fault; the reader does not wait for the payload.
        frame_reader over;
        over.set_limit(limit);
        wire.clear();
        append_frame(wire, frame_type::login_first, 1, std::string(limit + 1, 'x'));
        over.add(wire.substr(0, frame_header_size));
        EXPECT_EQ(over.next(found), result::malformed);
    }
}

TEST(frames, reserved_bytes_are_zero) {
    for (const std::size_t at : {6u, 7u}) {
        std::string wire;
        append_frame(wire, frame_type::heartbeat, 0, {});
        wire[at] = 1;
        frame_reader reader;
        frame found;
        reader.add(wire);
        EXPECT_EQ(reader.next(found), result::malformed);
    }
}

TEST(frames, pages_of_names) {
    std::string page = empty_page();
    EXPECT_TRUE(append_name(page, "ab"));
    EXPECT_TRUE(append_name(page, "c"));
    set_next(page, 0x01020304);
    EXPECT_EQ(page, bytes({1, 2, 3, 4, 0, 2, 'a', 'b', 0, 1, 'c'}));
    name_page read;
    ASSERT_TRUE(read_page(page, read));
    EXPECT_EQ(read.next, 0x01020304u);
    EXPECT_EQ(read.names, (std::vector<std::string>{"ab", "c"}));
    for (const std::size_t cut : {1u, 2u, 3u, 5u, 7u, 9u, 10u})
        EXPECT_FALSE(read_page(page.substr(0, cut), read)) << cut;
}

TEST(frames, a_page_is_never_too_long) {
    std::string page = empty_page();
    unsigned count = 0;
    while (append_name(page, std::string(name_limit, 'x')))
        ++count;
    EXPECT_EQ(count, (payload_limit - 4) / (name_limit + 2));
    EXPECT_LE(page.size(), payload_limit);
    name_page read;
    EXPECT_TRUE(read_page(page, read));
    EXPECT_EQ(read.names.size(), count);
}

TEST(frames, numbers) {
    uint32 number = 0;
    EXPECT_EQ(number_payload(0x0a0b0c0d), bytes({10, 11, 12, 13}));
    EXPECT_TRUE(read_number(bytes({10, 11, 12, 13}), number));
    EXPECT_EQ(number, 0x0a0b0c0du);
    for (const std::size_t size : {0u, 3u, 5u})
        EXPECT_FALSE(read_number(std::string(size, 'x'), number));
}

} // namespace
