// Bytes of files, plain and compressed; whole lines of logs that are still being written.
#include "compression/compressor.h"
#include "heap/log/file_bytes.h"
#include "heap/log/following_filter.h"
#include "support/temp_folder.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using namespace qor::heap;

std::string compressed(qor::compression::format which, const std::string& text) {
    qor::compression::compressor state;
    std::string out;
    EXPECT_TRUE(state.start(which, 1)) << state.reason();
    EXPECT_TRUE(state.add(text, qor::compression::compressor::ending::whole, out));
    return out;
}

std::string some_text(std::size_t size) {
    std::string text;
    for (uint32 i = 0; text.size() < size; ++i)
        text += std::to_string(i * 2654435761u) + '\n';
    return text;
}

class bytes_of_files : public testing::Test {
protected:
    std::string read(file_bytes& file, std::size_t room) {
        std::string all, piece(room, '\0');
        while (const std::size_t count = file.read(piece.data(), room))
            all.append(piece, 0, count);
        return all;
    }

    qor::test::temp_folder folder;
};

TEST_F(bytes_of_files, are_those_before_the_compression) {
    using qor::compression::format;
    for (const std::size_t size : {0, 1, 3, 1000, 1'000'000}) {
        const std::string text = some_text(size);
        for (const std::string& content : {text, compressed(format::gzip, text), compressed(format::zstd, text)})
            for (const std::size_t room : {1, 7, 100'000}) {
                if (size / room > 100'000)
                    continue;
                file_bytes file;
                ASSERT_TRUE(file.open(folder.file("file", content).c_str()));
                char nothing;
                EXPECT_EQ(file.read(&nothing, 0), 0u);
                // Fewer bytes than a signature has may be the beginning of one.
                EXPECT_EQ(read(file, room), content.size() < 2 ? "" : text) << size;
                EXPECT_TRUE(file.is_whole());
                EXPECT_EQ(file.read(&nothing, 0), 0u);
            }
    }
}

TEST_F(bytes_of_files, that_are_cut_off) {
    const std::string text = some_text(100'000), whole = compressed(qor::compression::format::gzip, text);
    file_bytes file;
    ASSERT_TRUE(file.open(folder.file("file", whole.substr(0, whole.size() / 2)).c_str()));
    const std::string found = read(file, 1000);
    EXPECT_GT(found.size(), 1000u);
    EXPECT_TRUE(text.starts_with(found));
    EXPECT_FALSE(file.is_whole());
}

TEST_F(bytes_of_files, refuse_folders) {
    file_bytes file;
    EXPECT_FALSE(file.open(folder.path().c_str()));
}

// The text that a filter lets through of data that come in pieces.
std::string passed(following_filter& filter, std::string_view data, std::size_t piece, std::size_t room) {
    std::string all, out(room, '\0');
    while (!data.empty()) {
        const char* next = data.data();
        const char* const end = next + std::min(piece, data.size());
        char* to;
        do {
            to = out.data();
            EXPECT_TRUE(filter.Convert(&next, end, false, &to, out.data() + room));
            all.append(out.data(), to);
        } while (to == out.data() + room);
        EXPECT_EQ(next, end);
        data.remove_prefix(std::min(piece, data.size()));
    }
    return all;
}

TEST(following, passes_on_whole_lines) {
    const std::string text = some_text(5000);
    for (const std::string& data : {text, compressed(qor::compression::format::zstd, text)})
        for (const std::size_t piece : {1, 3, 100, 10'000})
            for (const std::size_t room : {1, 10, 10'000}) {
                following_filter filter("log");
                EXPECT_EQ(passed(filter, data, piece, room), text) << piece << ' ' << room;
            }
    following_filter filter("log");
    EXPECT_EQ(passed(filter, "@ app + 0x10 0x8\n@ app + 0x2", 5, 100), "@ app + 0x10 0x8\n");
    EXPECT_EQ(passed(filter, "0 0x9", 5, 100), "");
    EXPECT_EQ(passed(filter, "\n@", 5, 100), "@ app + 0x20 0x9\n");
}

} // namespace
