// The file object.
#include "catalog/catalog.h"
#include "qor/qor.h"
#include "reader_support.h"
#include "support/platform.h"

#include <gtest/gtest.h>

#include <climits>
#include <filesystem>
#include <fstream>

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

TEST_F(file, other_modes_are_refused) {
    const std::string path = m_folder.file("f", "x");
    qorFile from;
    for (const uint32 mode : {0u, 1u, 2u, 5u, 20u, 23u, 0xffffffffu}) {
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
