// The calls that the inline classes make: with fixed arguments, to two slots in turn, or to none.
#include "support/recording_table.h"

#include <gtest/gtest.h>

namespace {

using qor::test::assertion;
using qor::test::recording_table;
using calls = std::vector<std::string>;

// The observed string operations are recorded and then carried out by the real table.
calls s_calls;
const qor::glue::binding_table* s_real = nullptr;

void string_init(qorString* self, uint32 capacity) noexcept {
    s_calls.push_back("init " + std::to_string(capacity));
    s_real->qorString_Init(self, capacity);
}
void string_set(qorString* self, const char* text, uint32 length) noexcept {
    s_calls.push_back("set " + std::string(text, length));
    s_real->qorString_Set(self, text, length);
}
void array_init(qorStringArray* self) noexcept {
    s_calls.push_back("array");
    s_real->qorStringArray_Init(self);
}
void array_empty(qorStringArray* self) noexcept {
    s_calls.push_back("array empty");
    s_real->qorStringArray_Empty(self);
}

class forwarding : public testing::Test {
protected:
    forwarding() {
        s_calls.clear();
        s_real = &real;
        table.rows.qorString_Init = string_init;
        table.rows.qorString_Set = string_set;
        table.rows.qorStringArray_Init = array_init;
        table.rows.qorStringArray_Empty = array_empty;
    }

    static calls taken() { return std::exchange(s_calls, {}); }

    const qor::glue::binding_table real = *qor::glue::table();
    recording_table table;
};

TEST_F(forwarding, a_string_begins_with_capacity_zero) {
    const qorString text;
    EXPECT_EQ(taken(), calls{"init 0"});
    EXPECT_STREQ(text.Text(), "");
}

TEST_F(forwarding, a_copied_string_is_initialised_and_then_assigned) {
    const qorString source("five\0!", 6);
    EXPECT_EQ(taken(), (calls{"init 6", "set " + std::string("five\0!", 6)}));
    const qorString copy(source);
    EXPECT_EQ(taken(), (calls{"init 6", "set " + std::string("five\0!", 6)}));
    EXPECT_TRUE(copy == source);
}

TEST_F(forwarding, a_string_array_is_emptied_by_empty_and_by_its_end) {
    {
        qorStringArray words;
        EXPECT_EQ(taken(), calls{"array"});
        words.Empty();
        EXPECT_EQ(taken(), calls{"array empty"});
    }
    EXPECT_EQ(taken(), calls{"array empty"});
}

TEST_F(forwarding, an_element_is_read_without_the_table) {
    qorStringArray words;
    words.Append("first");
    words.Append("second");
    EXPECT_TRUE(table.unbound([&] {
        EXPECT_EQ(words.GetCount(), 2u);
        EXPECT_FALSE(words.IsEmpty());
        EXPECT_STREQ(words[1], "second");
        EXPECT_STREQ(words.GetAt(0), "first");
        EXPECT_STREQ(words[2], "");
    }));
    EXPECT_EQ(table.take(), calls{});
}

TEST_F(forwarding, an_index_beyond_the_end_is_reported_and_yields_an_empty_text) {
    const std::string report = assertion("index < m_data.count", "const char* qorStringArray::operator[](uint32) const",
                                         "qorcore/include/qor/glue/impl_common", 109);
    qorStringArray words;
    EXPECT_STREQ(words[0], "");
    EXPECT_EQ(table.take(), calls{report});
    words.Append("first");
    EXPECT_STREQ(words.GetAt(1), "");
    EXPECT_STREQ(words[0xffffffff], "");
    EXPECT_EQ(table.take(), calls(2, report));
    EXPECT_STREQ(words[0], "first");
    EXPECT_EQ(table.take(), calls{});
}

TEST_F(forwarding, a_byte_of_a_string_is_checked) {
    const qorString text("ab");
    EXPECT_EQ(text[1], 'b');
    EXPECT_EQ(table.take(), calls{});
    EXPECT_EQ(text[2], '\0');
    EXPECT_EQ(table.take(), calls{assertion("index < (int32)m_data.length", "char qorString::operator[](int32) const",
                                            "qorcore/include/qor/glue/impl_common", 71)});
}

} // namespace
