// The file source and the file target, and the classes around them.
#include "catalog/catalog.h"
#include "qor/qor.h"
#include "reader_support.h"
#include "support/platform.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>

namespace {

using qor::test::last_error;
using qor::test::read_file;

static_assert(std::input_iterator<qorFileSource::block_iterator>);

class file_stream : public testing::Test {
protected:
    file_stream() {
        std::string why;
        qor::catalog::set_languages("en", why);
        qorClearLastError();
    }

    std::size_t file_count() const {
        return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(m_folder.path()), {}));
    }

    const qor::test::temp_folder m_folder;
    const std::string m_path = m_folder / "f";
};

std::string text(std::span<const std::byte> bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

} // namespace

TEST_F(file_stream, writes_and_reads) {
    qorFileTarget to;
    ASSERT_TRUE(to.Open(m_path.c_str())) << last_error();
    EXPECT_TRUE(to.Write("some ") && to.Write("text"));
    EXPECT_EQ(to.GetPosition(), 9u);
    EXPECT_TRUE(to.Close()) << last_error();
    EXPECT_EQ(read_file(m_path), "some text");

    qorFileSource from;
    ASSERT_TRUE(from.Open(m_path.c_str())) << last_error();
    std::byte begin[4];
    auto got = from.Read(begin);
    ASSERT_TRUE(got);
    EXPECT_EQ(text(*got), "some");
    std::string rest;
    for (const std::span<const std::byte> block : from)
        rest += text(block);
    EXPECT_EQ(rest, " text");
    EXPECT_FALSE(from.HasFailed());
    EXPECT_EQ(from.GetPosition(), 9u);
    got = from.Read(begin);
    ASSERT_TRUE(got && got->empty());
    const auto block = from.ReadBlock();
    ASSERT_TRUE(block && block->empty());
    EXPECT_EQ(last_error(), "There is no error to report.");
}

// A target is a sink like any other.
TEST_F(file_stream, carries_the_stream_form_of_values) {
    qorFileTarget to;
    ASSERT_TRUE(to.Open(m_path.c_str()));
    qorStringArray words;
    words.Append("one");
    words.Append("");
    EXPECT_TRUE(qorTimecode(1, 2, 3, 4).Write(to.Interface()) && words.Write(to.Interface()));
    EXPECT_TRUE(to.Close());
    qorFileSource from;
    ASSERT_TRUE(from.Open(m_path.c_str()));
    qorTimecode timecode;
    qorStringArray back;
    EXPECT_TRUE(timecode.Read(from.Interface()) && back.Read(from.Interface()));
    EXPECT_EQ(timecode, qorTimecode(1, 2, 3, 4));
    EXPECT_EQ(back.GetCount(), 2u);
    EXPECT_FALSE(timecode.Read(from.Interface()));
    EXPECT_EQ(last_error(), "Cannot read '" + m_path + "': it ends unexpectedly at byte 23.");
}

TEST_F(file_stream, a_target_that_replaces) {
    m_folder.file("f", "old");
    qorFileTarget to;
    ASSERT_TRUE(to.Open(m_path.c_str(), qorFileReplace)) << last_error();
    to.Write("new");
    EXPECT_TRUE(to.Flush(qorFlushTo::disk)) << last_error();
    EXPECT_EQ(read_file(m_path), "old");
    EXPECT_TRUE(to.Close()) << last_error();
    EXPECT_EQ(read_file(m_path), "new");
    // Broken off: by the end of the object, and by another Open.
    {
        qorFileTarget broken;
        ASSERT_TRUE(broken.Open(m_path.c_str(), qorFileReplace));
        broken.Write("newer");
    }
    ASSERT_TRUE(to.Open(m_path.c_str(), qorFileReplace));
    to.Write("newest");
    ASSERT_TRUE(to.Open((m_folder / "g").c_str(), qorFileReplace));
    EXPECT_EQ(read_file(m_path), "new");
    EXPECT_TRUE(to.Close());
    EXPECT_EQ(file_count(), 2u);
}

TEST_F(file_stream, a_target_that_is_not_closed_keeps_what_was_written) {
    {
        qorFileTarget to;
        ASSERT_TRUE(to.Open(m_path.c_str()));
        to.Write("text");
    }
    EXPECT_EQ(read_file(m_path), "text");
}

TEST_F(file_stream, copies_to_any_sink) {
    const std::string whole(700'000, 'x');
    m_folder.file("f", whole + "end");
    qorFileSource from;
    ASSERT_TRUE(from.Open(m_path.c_str()));
    zetSmartPointer<IQORMemoryDataSink> sink;
    create_IQORMemoryDataSink(sink.Out());
    EXPECT_EQ(from.CopyTo(*sink, whole.size()), whole.size());
    EXPECT_EQ(sink->GetSize(), whole.size());
    EXPECT_EQ(from.CopyTo(*sink, 0), 0u);
    EXPECT_EQ(from.CopyTo(*sink), 3u);
    EXPECT_EQ(from.CopyTo(*sink), 0u);
    EXPECT_EQ(std::string(static_cast<const char*>(sink->GetData()), sink->GetSize()), whole + "end");
}

TEST_F(file_stream, a_file_that_changes_while_it_is_read) {
    m_folder.file("f", std::string(600'000, 'x'));
    qorFileSource from;
    ASSERT_TRUE(from.Open(m_path.c_str()));
    std::byte begin[2];
    ASSERT_TRUE(from.Read(begin));
    std::filesystem::resize_file(m_path, 300'000);
    qorFileTarget to;
    ASSERT_TRUE(to.Open((m_folder / "g").c_str()));
    EXPECT_EQ(from.CopyTo(to), 299'998u);
    std::ofstream(m_path, std::ios::binary | std::ios::app) << "more";
    EXPECT_EQ(from.CopyTo(to), 4u);
    std::filesystem::remove(m_path);
    EXPECT_EQ(from.CopyTo(to), 0u);
    EXPECT_TRUE(to.Close()) << last_error();
    EXPECT_EQ(read_file(m_folder / "g"), std::string(299'998, 'x') + "more");
}

TEST_F(file_stream, failures_stay) {
    class full_sink final : public qor::object<IQORDataSink> {
    public:
        full_sink() noexcept : object("full_sink", "IQORDataSink") {}
        bool Write(const void*, uint32) noexcept override {
            qorSetLastError(qorError_disk_full);
            return false;
        }
    };
    m_folder.file("f", "text");
    qorFileSource from;
    ASSERT_TRUE(from.Open(m_path.c_str()));
    zetSmartPointer<full_sink> sink;
    sink.AttachNew(QOR_NEW full_sink);
    EXPECT_FALSE(from.CopyTo(*sink));
    EXPECT_EQ(last_error(), "There is no space left on the disk.");
    EXPECT_FALSE(from.HasFailed());

    qorFileTarget to;
    EXPECT_FALSE(to.Write("x"));
    EXPECT_EQ(last_error(), "IQORFileTarget::Write needs an open file.");
    EXPECT_FALSE(to.Close());
    EXPECT_EQ(last_error(), "IQORFileTarget::Close needs an open file.");
    for (const uint32 mode : {1u, 3u, 129u, 160u, 12u, 256u}) {
        EXPECT_FALSE(to.Open((m_folder / "g").c_str(), mode)) << mode;
        EXPECT_EQ(last_error(), "IQORFileTarget::Open was called with an invalid argument: mode.");
    }
    EXPECT_FALSE(to.Open(m_folder.path().c_str()));
    const std::string a_folder = qor::test::system_reasons().a_folder;
    EXPECT_EQ(last_error(), "Cannot open '" + m_folder.path() + "': " + a_folder + ".");
    from.Close();
    EXPECT_FALSE(from.ReadBlock());
    EXPECT_EQ(last_error(), "IQORFileSource::ReadBlock needs an open file.");
    EXPECT_FALSE(from.Open(m_folder.path().c_str()));
    EXPECT_EQ(last_error(), "Cannot open '" + m_folder.path() + "': " + a_folder + ".");
}

TEST_F(file_stream, answers_to_its_names) {
    const auto answers = [](auto* object, const char* name) {
        void* found = nullptr;
        if (object->QueryInterface(name, &found) == 0)
            return false;
        EXPECT_EQ(found, object);
        object->Release();
        return true;
    };
    qorFileTarget to;
    for (const char* const name : {"IQORFileTarget", "IQORDataSink", "IQORInterface"})
        EXPECT_TRUE(answers(to.Interface(), name)) << name;
    EXPECT_FALSE(answers(to.Interface(), "IQORDataSource"));
    EXPECT_FALSE(answers(to.Interface(), "qorcore.file_target"));
    qorFileSource from;
    for (const char* const name : {"IQORFileSource", "IQORDataSource", "IQORInterface"})
        EXPECT_TRUE(answers(from.Interface(), name)) << name;
    EXPECT_FALSE(answers(from.Interface(), "IQORDataSink"));
}
