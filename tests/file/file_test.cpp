// The file object.
#include "catalog/catalog.h"
#include "qor/qor.h"
#include "reader_support.h"
#include "support/platform.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <thread>
#include <vector>

namespace {

using qor::test::last_error;

constexpr uint32 reading = qorFileReading | qorFileExisting | qorFileShared;
static_assert(reading == 21 && std::is_same_v<decltype(qorFileReading | qorFileShared), qorFileMode>);
static_assert(std::is_convertible_v<qorFileMode, uint32> && !std::is_convertible_v<uint32, qorFileMode>);

class file : public testing::Test {
protected:
    file() {
        std::string why;
        qor::catalog::set_languages("en", why);
        qorClearLastError();
    }

    std::string read_at(const qorFile& from, uint64 offset, uint32 length) {
        std::string bytes(length, '?');
        EXPECT_TRUE(from.ReadAt(offset, bytes.data(), length)) << last_error();
        return bytes;
    }

    const qor::test::temp_folder m_folder;
};

} // namespace

TEST_F(file, the_mode_for_reading_is_21) { EXPECT_EQ(reading, 21u); }

TEST_F(file, reads_at_any_place) {
    const std::string path = m_folder.file("f", "0123456789");
    qorFile from;
    ASSERT_TRUE(from.Open(path.c_str(), reading));
    EXPECT_EQ(from.GetSize(), 10u);
    EXPECT_EQ(read_at(from, 0, 10), "0123456789");
    EXPECT_EQ(read_at(from, 7, 3), "789");
    EXPECT_EQ(read_at(from, 3, 2), "34");
    EXPECT_EQ(read_at(from, 10, 0), "");
    EXPECT_EQ(last_error(), "There is no error to report.");
}

TEST_F(file, a_read_beyond_the_end_is_an_error) {
    const std::string path = m_folder.file("f", "0123456789");
    qorFile from;
    ASSERT_TRUE(from.Open(path.c_str(), reading));
    char buffer[16];
    EXPECT_FALSE(from.ReadAt(0, buffer, 11));
    EXPECT_EQ(last_error(), std::string("Cannot read '") + path + "': it ends unexpectedly at byte 10.");
    EXPECT_FALSE(from.ReadAt(10, buffer, 1));
    EXPECT_FALSE(from.ReadAt(1ull << 40, buffer, 1));
    EXPECT_FALSE(from.ReadAt(LLONG_MAX, buffer, 1));
    EXPECT_FALSE(from.ReadAt(ULLONG_MAX, buffer, 2));
    EXPECT_EQ(read_at(from, 9, 1), "9");
}

TEST_F(file, what_was_cut_off_is_missed) {
    const std::string path = m_folder.file("f", std::string(1000, 'x'));
    qorFile from;
    ASSERT_TRUE(from.Open(path.c_str(), reading));
    EXPECT_EQ(from.GetSize(), 1000u);
    std::filesystem::resize_file(path, 500);
    EXPECT_EQ(from.GetSize(), 500u);
    EXPECT_EQ(read_at(from, 400, 100), std::string(100, 'x'));
    char buffer[1000];
    EXPECT_FALSE(from.ReadAt(0, buffer, 1000));
    EXPECT_EQ(last_error(), std::string("Cannot read '") + path + "': it ends unexpectedly at byte 500.");
}

TEST_F(file, beyond_4_gib) {
    const std::string path = m_folder.file("f", "begin");
    constexpr uint64 place = (5ull << 30) + 3;
    std::filesystem::resize_file(path, place);
    std::ofstream(path, std::ios::binary | std::ios::app) << "end";
    qorFile from;
    ASSERT_TRUE(from.Open(path.c_str(), reading));
    EXPECT_EQ(from.GetSize(), place + 3);
    EXPECT_EQ(read_at(from, place - 1, 4), std::string("\0end", 4));
    EXPECT_EQ(read_at(from, 0, 5), "begin");
}

TEST_F(file, an_empty_file) {
    qorFile from;
    ASSERT_TRUE(from.Open(m_folder.file("f", "").c_str(), reading));
    EXPECT_EQ(from.GetSize(), 0u);
    char byte;
    EXPECT_TRUE(from.ReadAt(0, &byte, 0));
    EXPECT_FALSE(from.ReadAt(0, &byte, 1));
}

TEST_F(file, names_beyond_ascii) {
    qorFile from;
    const std::filesystem::path folder(m_folder.path());
    std::filesystem::create_directory(folder / u8"naïve 漢字");
    std::ofstream(folder / u8"naïve 漢字" / "f") << "x";
    EXPECT_TRUE(from.Open((m_folder / "naïve 漢字/f").c_str(), reading)) << last_error();
}

TEST_F(file, what_cannot_be_opened) {
    const qor::test::reasons reasons = qor::test::system_reasons();
    const std::string missing = m_folder / "missing";
    qorFile from;
    EXPECT_FALSE(from.Open(missing.c_str(), reading));
    EXPECT_EQ(last_error(), std::string("Cannot open '") + missing + "': " + reasons.no_file + ".");
    EXPECT_FALSE(from.Open(m_folder.path().c_str(), reading));
    EXPECT_EQ(last_error(), std::string("Cannot open '") + m_folder.path() + "': " + reasons.a_folder + ".");
    EXPECT_FALSE(from.Open("", reading));
    EXPECT_EQ(last_error(), std::string("Cannot open '': ") + reasons.no_name + ".");
}

// tests/file/model_test.py tries all of them.
TEST_F(file, modes_that_contradict_themselves_are_refused) {
    const std::string path = m_folder.file("f", "x");
    qorFile from;
    for (const uint32 mode : {0u, 1u, 20u, 16u, 37u, 69u, 14u, 130u, 258u, 0xffffffffu}) {
        EXPECT_FALSE(from.Open(path.c_str(), mode)) << mode;
        EXPECT_EQ(last_error(), "qorFile::Open was called with an invalid argument: mode.");
    }
}

TEST_F(file, without_an_open_file) {
    qorFile from;
    char byte;
    EXPECT_FALSE(from.ReadAt(0, &byte, 1));
    EXPECT_EQ(last_error(), "qorFile::ReadAt needs an open file.");
    EXPECT_EQ(from.GetSize(), 0u);
    EXPECT_EQ(last_error(), "qorFile::GetSize needs an open file.");
    from.Close();
}

TEST_F(file, opened_again) {
    const std::string first = m_folder.file("first", "1");
    const std::string second = m_folder.file("second", "22");
    qorFile from;
    ASSERT_TRUE(from.Open(first.c_str(), reading));
    ASSERT_TRUE(from.Open(second.c_str(), reading));
    EXPECT_EQ(from.GetSize(), 2u);
    // A failed Open leaves no file open.
    EXPECT_FALSE(from.Open((m_folder / "missing").c_str(), reading));
    EXPECT_EQ(from.GetSize(), 0u);
    ASSERT_TRUE(from.Open(first.c_str(), reading));
    from.Close();
    EXPECT_EQ(from.GetSize(), 0u);
}

// An open file does not restrict others.
TEST_F(file, an_open_file_can_be_written_and_deleted) {
    const std::string path = m_folder.file("f", "before");
    qorFile from;
    ASSERT_TRUE(from.Open(path.c_str(), reading));
    std::ofstream(path, std::ios::binary | std::ios::app) << " after";
    EXPECT_EQ(read_at(from, 0, 12), "before after");
    EXPECT_TRUE(std::filesystem::remove(path));
    EXPECT_EQ(read_at(from, 0, 6), "before");
}

// ---- what the class adds for C++

TEST_F(file, takes_and_returns_spans) {
    const std::string path = m_folder / "f";
    qorFile both;
    ASSERT_TRUE(both.Open(path.c_str(), qorFileReading | qorFileWriting | qorFileNew)) << last_error();
    const std::vector<unsigned char> numbers = {1, 2, 3};
    EXPECT_TRUE(both.Write("a text") && both.Write(std::as_bytes(std::span(numbers))) && both.WriteAt(2, "T"));
    EXPECT_EQ(both.Tell(), 9u);
    std::byte buffer[8];
    ASSERT_TRUE(both.Seek(0));
    auto got = both.Read(buffer);
    ASSERT_TRUE(got);
    EXPECT_EQ(std::memcmp(got->data(), "a Text\1\2", 8), 0);
    got = both.Read(buffer);
    ASSERT_TRUE(got);
    EXPECT_EQ(got->size(), 1u);
    got = both.Read(buffer);
    ASSERT_TRUE(got && got->empty());
    EXPECT_FALSE(both.ReadExact(buffer));
    EXPECT_FALSE(qorFile().Read(buffer));
}

TEST_F(file, moves_with_its_open_file) {
    qorFile first;
    ASSERT_TRUE(first.Open(m_folder.file("f", "text").c_str(), reading));
    qorFile second(std::move(first));
    EXPECT_TRUE(second.IsOpen());
    EXPECT_EQ(second.GetSize(), 4u);
    qorFile third;
    ASSERT_TRUE(third.Open(m_folder.file("g", "x").c_str(), reading));
    third = std::move(second);
    EXPECT_EQ(third.GetSize(), 4u);
}

TEST_F(file, is_replaced_as_a_whole) {
    const std::string path = m_folder.file("f", "old");
    EXPECT_TRUE(qorReplaceFile(path.c_str(), "new")) << last_error();
    EXPECT_EQ(qor::test::read_file(path), "new");
    const std::vector<unsigned char> numbers = {65, 66};
    EXPECT_TRUE(qorReplaceFile((m_folder / "g").c_str(), std::as_bytes(std::span(numbers)), qorReplacePrivate))
        << last_error();
    EXPECT_EQ(qor::test::read_file(m_folder / "g"), "AB");
    EXPECT_FALSE(qorReplaceFile((m_folder / "none/f").c_str(), "x"));
    EXPECT_FALSE(qorReplaceFile(m_folder.path().c_str(), "x"));
    EXPECT_EQ(last_error(), "Cannot write '" + m_folder.path() + "': " + qor::test::system_reasons().a_folder + ".");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(m_folder.path()), {}), 2);
}

TEST_F(file, is_replaced_by_several_threads) {
    const std::string path = m_folder / "f";
    const auto replace = [&path](char letter) {
        for (std::size_t i = 1; i <= 50; ++i)
            EXPECT_TRUE(qorReplaceFile(path.c_str(), std::string(1000 * i, letter))) << last_error();
    };
    std::thread first(replace, 'a'), second(replace, 'b');
    first.join();
    second.join();
    const std::string text = qor::test::read_file(path);
    EXPECT_EQ(text, std::string(50'000, text.at(0)));
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(m_folder.path()), {}), 1);
}

// Both systems exclude others in the same way.
TEST_F(file, that_is_not_shared_excludes_others) {
    const std::string path = m_folder.file("f", "text");
    qorFile first, second;
    ASSERT_TRUE(first.Open(path.c_str(), qorFileReading | qorFileExisting));
    EXPECT_FALSE(second.Open(path.c_str(), reading));
    EXPECT_EQ(last_error(), "Cannot open '" + path + "': it is in use.");
    EXPECT_FALSE(second.Open(path.c_str(), qorFileWriting | qorFileTruncate));
    first.Close();
    EXPECT_TRUE(second.Open(path.c_str(), reading)) << last_error();
    EXPECT_EQ(second.GetSize(), 4u);
    EXPECT_FALSE(first.Open(path.c_str(), qorFileReading | qorFileExisting));
}

TEST_F(file, with_a_unique_name_is_closed_and_deleted) {
    qorFile made;
    qorString path;
    ASSERT_TRUE(made.CreateUnique(m_folder.path().c_str(), "begin", ".end", path)) << last_error();
    EXPECT_TRUE(made.Write("text"));
    EXPECT_TRUE(std::filesystem::exists(path.Text()));
    EXPECT_TRUE(made.CloseAndDelete()) << last_error();
    EXPECT_FALSE(std::filesystem::exists(path.Text()));
    EXPECT_FALSE(made.IsOpen());
    ASSERT_TRUE(made.CreateUnique(nullptr, nullptr, nullptr, path)) << last_error();
    EXPECT_TRUE(made.CloseAndDelete()) << last_error();
    EXPECT_FALSE(made.CreateUnique((m_folder / "none").c_str(), nullptr, nullptr, path));
    EXPECT_STREQ(path, "");
}

TEST_F(file, tells_its_information) {
    qorFile both;
    const uint64 before = qorGetSystemTime();
    ASSERT_TRUE(both.Open((m_folder / "f").c_str(), qorFileReading | qorFileWriting | qorFileNew));
    EXPECT_TRUE(both.Write("text") && both.Flush(qorFlushTo::disk));
    qorFileInfo info;
    ASSERT_TRUE(both.GetFileInfo(info)) << last_error();
    EXPECT_EQ(info.kind, qorFileKind::file);
    EXPECT_EQ(info.size, 4u);
    // A file system's clock may lag by some milliseconds.
    EXPECT_GT(info.modified + qorTicksPerSecond, before);
    EXPECT_FALSE(qorFile().GetFileInfo(info));
    EXPECT_EQ(info.modified, 0u);
}

TEST_F(file, at_a_path_of_more_than_260_characters) {
    const std::string folder = m_folder / std::string(180, 'x');
    std::filesystem::create_directory(folder);
    const std::string path = folder + "/" + std::string(120, 'y');
    qorFile both;
    ASSERT_TRUE(both.Open(path.c_str(), qorFileReading | qorFileWriting | qorFileNew)) << last_error();
    EXPECT_TRUE(both.Write("text"));
    both.Close();
    EXPECT_TRUE(qorReplaceFile(path.c_str(), "longer")) << last_error();
    ASSERT_TRUE(both.Open(path.c_str(), qorFileReading | qorFileWriting)) << last_error();
    EXPECT_EQ(both.GetSize(), 6u);
    EXPECT_TRUE(both.CloseAndDelete()) << last_error();
    EXPECT_TRUE(std::filesystem::is_empty(folder));
}

TEST_F(file, by_a_handle) {
    const std::string path = m_folder / "f";
    qorOpenFile* handle = nullptr;
    ASSERT_TRUE(qorFileOpen(path.c_str(), qorFileReading | qorFileWriting, &handle)) << last_error();
    uint64 count = 0;
    char buffer[8];
    EXPECT_TRUE(qorFileWrite(handle, "text", 4) && qorFileSeek(handle, 1, qorFileOrigin::begin));
    EXPECT_TRUE(qorFileRead(handle, buffer, sizeof buffer, &count));
    EXPECT_EQ(std::string_view(buffer, count), "ext");
    EXPECT_EQ(qorFileGetSize(handle), 4u);
    EXPECT_TRUE(qorFileClose(handle));
    EXPECT_FALSE(qorFileClose(nullptr));
    EXPECT_EQ(last_error(), "qorFileClose needs an open file.");
    EXPECT_FALSE(qorFileOpen(path.c_str(), qorFileReading | qorFileNew, &handle));
    EXPECT_EQ(handle, nullptr);
}
