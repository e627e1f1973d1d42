#include "value_types_support.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

using bytes = std::vector<unsigned char>;

zetSmartPointer<IQORMemoryDataSink> new_sink() {
    zetSmartPointer<IQORMemoryDataSink> sink;
    create_IQORMemoryDataSink(sink.Out());
    return sink;
}

zetSmartPointer<IQORMemoryDataSource> new_source(const bytes& data) {
    zetSmartPointer<IQORMemoryDataSource> source;
    create_IQORMemoryDataSource(data.data(), static_cast<uint32>(data.size()), source.Out());
    return source;
}

bytes written(const zetSmartPointer<IQORMemoryDataSink>& sink) {
    const auto* const data = static_cast<const unsigned char*>(sink->GetData());
    return {data, data + sink->GetSize()};
}

uint32 last_error() {
    qorString text;
    return qorGetLastError(text);
}

// ---- memory
TEST(memory_stream, keeps_what_is_written) {
    const auto sink = new_sink();
    EXPECT_EQ(sink->GetSize(), 0u);
    EXPECT_EQ(sink->GetData(), nullptr);
    EXPECT_TRUE(sink->Write("", 0));
    EXPECT_TRUE(sink->Write(nullptr, 0));
    EXPECT_EQ(sink->GetSize(), 0u);
    bytes model;
    for (int i = 0; i < 300; ++i) {
        const bytes piece(static_cast<std::size_t>(i), static_cast<unsigned char>(i));
        EXPECT_TRUE(sink->Write(piece.data(), static_cast<uint32>(piece.size())));
        model.insert(model.end(), piece.begin(), piece.end());
    }
    EXPECT_EQ(written(sink), model);
    sink->Empty();
    EXPECT_EQ(sink->GetSize(), 0u);
    EXPECT_TRUE(sink->Write("a", 1));
    EXPECT_EQ(written(sink), bytes{'a'});
}

TEST(memory_stream, more_than_can_be_counted_is_refused) {
    const auto sink = new_sink();
    EXPECT_TRUE(sink->Write("abc", 3));
    qorClearLastError();
    EXPECT_FALSE(sink->Write("", 0xffffffff)); // refused before a byte is read
    EXPECT_EQ(last_error(), qorError_out_of_memory);
    EXPECT_EQ(written(sink), (bytes{'a', 'b', 'c'}));
    EXPECT_TRUE(sink->Write("d", 1));
    EXPECT_EQ(sink->GetSize(), 4u);
}

TEST(memory_stream, is_read_in_pieces_of_any_size) {
    const bytes data = {1, 2, 3, 4, 5, 6};
    const auto source = new_source(data);
    EXPECT_EQ(source->GetRemaining(), 6u);
    qorClearLastError();
    unsigned char piece[8] = {};
    EXPECT_TRUE(source->Read(piece, 1));
    EXPECT_TRUE(source->Read(nullptr, 0));
    EXPECT_TRUE(source->Read(piece + 1, 3));
    EXPECT_EQ(source->GetRemaining(), 2u);
    EXPECT_EQ(std::memcmp(piece, data.data(), 4), 0);
    EXPECT_EQ(last_error(), qorError_none);
    // An incomplete read takes nothing.
    EXPECT_FALSE(source->Read(piece, 3));
    EXPECT_EQ(last_error(), qorError_cannot_read_file);
    EXPECT_EQ(source->GetRemaining(), 2u);
    EXPECT_TRUE(source->Read(piece, 2));
    EXPECT_EQ(piece[1], 6);
    EXPECT_EQ(source->GetRemaining(), 0u);
    EXPECT_TRUE(source->Read(piece, 0));
    EXPECT_FALSE(source->Read(piece, 1));
    EXPECT_FALSE(source->Read(piece, 0xffffffff));
    const auto nothing = new_source({});
    EXPECT_FALSE(nothing->Read(piece, 1));
}

template <class POINTER>
bool answers(POINTER& object, const char* name) {
    void* found = nullptr;
    if (object->QueryInterface(name, &found) == 0)
        return false;
    EXPECT_EQ(found, *object);
    object->Release();
    return true;
}

TEST(memory_stream, answers_to_its_names) {
    const auto sink = new_sink();
    EXPECT_TRUE(answers(sink, "IQORMemoryDataSink"));
    EXPECT_TRUE(answers(sink, "IQORDataSink"));
    EXPECT_TRUE(answers(sink, "IQORInterface"));
    EXPECT_FALSE(answers(sink, "IQORDataSource"));
    const auto source = new_source({});
    EXPECT_TRUE(answers(source, "IQORMemoryDataSource"));
    EXPECT_TRUE(answers(source, "IQORDataSource"));
    EXPECT_TRUE(answers(source, "IQORInterface"));
    EXPECT_FALSE(answers(source, "IQORDataSink"));
}

// ---- numbers
TEST(stream, numbers_are_little_endian) {
    const auto sink = new_sink();
    EXPECT_TRUE(sink->WriteUint16(0x1234));
    EXPECT_TRUE(sink->WriteUint32(0x89abcdef));
    EXPECT_TRUE(sink->WriteInt32(-2));
    EXPECT_EQ(written(sink), (bytes{0x34, 0x12, 0xef, 0xcd, 0xab, 0x89, 0xfe, 0xff, 0xff, 0xff}));
    const bytes data = written(sink);
    const auto source = new_source(data);
    uint16 small = 0;
    uint32 large = 0;
    int32 negative = 0;
    EXPECT_TRUE(source->ReadUint16(small));
    EXPECT_TRUE(source->ReadUint32(large));
    EXPECT_TRUE(source->ReadInt32(negative));
    EXPECT_EQ(small, 0x1234);
    EXPECT_EQ(large, 0x89abcdef);
    EXPECT_EQ(negative, -2);
    EXPECT_FALSE(source->ReadUint16(small));
    EXPECT_FALSE(source->ReadUint32(large));
    EXPECT_FALSE(source->ReadInt32(negative));
    EXPECT_EQ(small, 0x1234);
    EXPECT_EQ(large, 0x89abcdef);
    EXPECT_EQ(negative, -2);
}

// ---- the value types
template <class TYPE>
struct value_stream : testing::Test {};
TYPED_TEST_SUITE(value_stream, value_types);

// Builds the stream form from the values of the fields.
template <class TYPE>
bytes stream_form() {
    TYPE value;
    bytes result;
    for_each_field(value, [&](auto& field, std::size_t index) {
        for (std::size_t i = 0; i < sizeof field; ++i)
            result.push_back(static_cast<unsigned char>(field_number(index) >> (8 * i)));
    });
    return result;
}

TYPED_TEST(value_stream, is_its_fields_in_their_order) {
    const auto sink = new_sink();
    EXPECT_TRUE(numbered<TypeParam>().Write(*sink));
    EXPECT_EQ(written(sink), stream_form<TypeParam>());
    EXPECT_EQ(sink->GetSize(), sizeof(TypeParam));
}

TYPED_TEST(value_stream, comes_back_as_it_went) {
    bytes data = stream_form<TypeParam>();
    data.push_back(77);
    const auto source = new_source(data);
    TypeParam value;
    EXPECT_TRUE(value.Read(*source));
    EXPECT_EQ(value, numbered<TypeParam>());
    EXPECT_EQ(source->GetRemaining(), 1u);
}

TYPED_TEST(value_stream, a_stream_that_ends_early_leaves_the_fields_before_changed) {
    const bytes whole = stream_form<TypeParam>();
    for (std::size_t length = 0; length < whole.size(); ++length) {
        const bytes data(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length));
        const auto source = new_source(data);
        TypeParam value, untouched, full = numbered<TypeParam>();
        qorClearLastError();
        EXPECT_FALSE(value.Read(*source));
        EXPECT_EQ(last_error(), qorError_cannot_read_file);
        std::size_t end = 0;
        TypeParam expected = untouched;
        for_each_field(expected, [&](auto& field, std::size_t index) {
            end += sizeof field;
            if (end <= length)
                field = static_cast<std::remove_reference_t<decltype(field)>>(field_number(index));
        });
        EXPECT_EQ(value, expected) << length;
        EXPECT_NE(value, full) << length;
    }
}

// Stores numbers in reverse byte order, and fails after a given number of fields.
class big_endian_sink final : public IQORDataSink {
public:
    explicit big_endian_sink(std::size_t fields) : m_room(fields) {}

    void AddRef() noexcept override {}
    void Release() noexcept override {}
    int QueryInterface(const char*, void**) noexcept override { return 0; }

    bool Write(const void*, uint32) noexcept override { return false; }
    bool WriteUint16(uint16 value) noexcept override { return put(value); }
    bool WriteUint32(uint32 value) noexcept override { return put(value); }

    bytes data;
    unsigned calls = 0;

private:
    template <class NUMBER>
    bool put(NUMBER value) {
        ++calls;
        if (m_room == 0)
            return false;
        --m_room;
        for (std::size_t i = sizeof value; i-- != 0;)
            data.push_back(static_cast<unsigned char>(value >> (8 * i)));
        return true;
    }

    std::size_t m_room;
};

TYPED_TEST(value_stream, byte_order_is_the_sinks_and_the_first_failed_field_is_the_last) {
    for (std::size_t room = 0; room <= field_count<TypeParam>; ++room) {
        big_endian_sink sink(room);
        EXPECT_EQ(numbered<TypeParam>().Write(&sink), room == field_count<TypeParam>);
        EXPECT_EQ(sink.calls, std::min(room + 1, field_count<TypeParam>));
        bytes expected;
        TypeParam value;
        for_each_field(value, [&](auto& field, std::size_t index) {
            for (std::size_t i = sizeof field; index < room && i-- != 0;)
                expected.push_back(static_cast<unsigned char>(field_number(index) >> (8 * i)));
        });
        EXPECT_EQ(sink.data, expected);
    }
}

TEST(stream, types_follow_each_other_in_one_stream) {
    const auto sink = new_sink();
    qorStringArray texts;
    texts.Append("one");
    texts.Append("");
    EXPECT_TRUE(qorTimecode(1, 2, 3, 4).Write(*sink));
    EXPECT_TRUE(texts.Write(*sink));
    EXPECT_TRUE(qorRational(-30000, 1001).Write(*sink));
    const bytes data = written(sink);
    const auto source = new_source(data);
    qorTimecode timecode;
    qorStringArray back;
    qorRational rate;
    EXPECT_TRUE(timecode.Read(*source) && back.Read(*source) && rate.Read(*source));
    EXPECT_EQ(timecode, qorTimecode(1, 2, 3, 4));
    ASSERT_EQ(back.GetCount(), 2u);
    EXPECT_STREQ(back[0], "one");
    EXPECT_STREQ(back[1], "");
    EXPECT_EQ(rate, qorRational(-30000, 1001));
    EXPECT_EQ(source->GetRemaining(), 0u);
}

} // namespace
