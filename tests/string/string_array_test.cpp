#include "string_support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

using namespace std::string_literals;
using texts = std::vector<std::string>;

namespace {

qorStringArray array_of(const texts& elements) {
    qorStringArray array;
    for (const std::string& element : elements)
        array.Append(element.data(), static_cast<int32>(element.size()));
    return array;
}

uint32 last_error() {
    qorString text;
    return qorGetLastError(text);
}

TEST(string_array, empty_one_owns_no_storage) {
    qorStringArray array;
    EXPECT_TRUE(array.IsEmpty());
    EXPECT_EQ(array.m_data.elements, nullptr);
    array.RemoveAt(0, 1);
    array.Sort(true);
    array.Append(qorStringArray());
    array.Copy(qorStringArray());
    array.CopyPortion(qorStringArray(), 1, 1);
    EXPECT_EQ(array.m_data.elements, nullptr);
    EXPECT_EQ(array.FindString(""), -1);
    array.Append("x");
    array.Empty();
    EXPECT_EQ(array.m_data.elements, nullptr);
    EXPECT_EQ(array.m_data.alloc, 0u);
}

TEST(string_array, elements) {
    const qorStringArray array = array_of({"a", "", "b\0c"s});
    EXPECT_EQ(array.GetCount(), 3u);
    EXPECT_STREQ(array[0], "a");
    EXPECT_STREQ(array.GetAt(1), "");
    EXPECT_EQ(std::string(array[2], 3), "b\0c"s);
    EXPECT_STREQ(array[3], "");
    EXPECT_STREQ(array.GetAt(0xffffffff), "");
}

TEST(string_array, an_element_behind_the_count_is_a_spare_one) {
    qorStringArray array = array_of({"first", "second", "third"});
    ASSERT_GT(array.m_data.alloc, 3u);
    const auto are_empty = [&array](uint32 from) {
        for (uint32 i = from; i < array.m_data.alloc; ++i)
            if (array[i][0] != '\0' || array.GetAt(i) != array.m_data.elements[i].Text())
                return false;
        return true;
    };
    EXPECT_TRUE(are_empty(3));
    // Each operation that removes elements keeps their storage but no text.
    qorString one("one");
    one.Tokenise_WS(array);
    EXPECT_EQ(list(array), texts{"one"});
    EXPECT_TRUE(are_empty(1));
    array = array_of({"first", "second", "third"});
    one.TokeniseAtByte('n', array);
    EXPECT_EQ(list(array), (texts{"o", "e"}));
    EXPECT_TRUE(are_empty(2));
    array = array_of({"first", "second", "third"});
    array.Copy(array_of({"copy"}));
    EXPECT_TRUE(are_empty(1));
    array = array_of({"first", "second", "third"});
    array.CopyPortion(array_of({"a", "b"}), 1, 1);
    EXPECT_TRUE(are_empty(1));
    array = array_of({"first", "second", "third"});
    array.RemoveAt(0, 2);
    EXPECT_EQ(list(array), texts{"third"});
    EXPECT_TRUE(are_empty(1));
}

// The element is changed, so that its text differs from an empty one.
TEST(string_array, an_index_behind_the_count_gives_the_element_all_the_same) {
    qorStringArray array = array_of({"first"});
    ASSERT_GT(array.m_data.alloc, 2u);
    array.m_data.elements[2].Set("spare");
    EXPECT_STREQ(array[2], "spare");
    EXPECT_STREQ(array.GetAt(2), "spare");
    EXPECT_STREQ(array[array.m_data.alloc], "");
}

TEST(string_array, from_vectors) {
    char program[] = "program", word[] = "word";
    char* const arguments[] = {program, word, nullptr};
    qorStringArray array = array_of({"left over"});
    array.SetFromArgVec(2, arguments);
    EXPECT_EQ(list(array), (texts{"program", "word"}));
    array.SetFromArgVec(0, arguments);
    EXPECT_EQ(list(array), texts{});
    array.SetFromVector(arguments);
    EXPECT_EQ(list(array), (texts{"program", "word"}));
    array.SetFromVector(nullptr);
    EXPECT_EQ(list(array), texts{});
}

TEST(string_array, vectors_of_its_own_texts) {
    qorStringArray array = array_of({"first", "second", "third"});
    const char* const own[] = {array[2], array[0] + 2, array[2], nullptr};
    array.SetFromVector(own);
    EXPECT_EQ(list(array), (texts{"third", "rst", "third"}));
    char* const arguments[] = {const_cast<char*>(array[1]), const_cast<char*>(array[0])};
    array.SetFromArgVec(2, arguments);
    EXPECT_EQ(list(array), (texts{"rst", "third"}));
}

TEST(string_array, its_own_texts_as_sources) {
    qorStringArray array = array_of({"a"});
    for (int i = 0; i < 100; ++i) { // the storage moves several times
        array.Append(array[0]);
        array.InsertAt(0, array[array.GetCount() - 1]);
    }
    EXPECT_EQ(list(array), texts(201, "a"));

    array = array_of({"x", "y"});
    for (int i = 0; i < 5; ++i)
        array.Append(array);
    EXPECT_EQ(array.GetCount(), 64u);
    EXPECT_STREQ(array[62], "x");
    EXPECT_STREQ(array[63], "y");

    EXPECT_FALSE(array.AddUnique(array[1]));
    EXPECT_TRUE(array.RemoveUnique(array[1]));
    EXPECT_EQ(array.GetCount(), 63u);
}

TEST(string_array, insert_and_remove) {
    qorStringArray array = array_of({"b"});
    array.InsertAt(0, "a");
    array.InsertAt(99, "d");
    array.InsertAt(2, "c\0c", 3);
    EXPECT_EQ(list(array), (texts{"a", "b", "c\0c"s, "d"}));
    array.RemoveAt(1, 2);
    EXPECT_EQ(list(array), (texts{"a", "d"}));
    array.RemoveAt(2, 1);
    array.RemoveAt(0, 0);
    array.RemoveAt(1, 0xffffffff);
    EXPECT_EQ(list(array), texts{"a"});
    array.RemoveAt(0, 1);
    EXPECT_TRUE(array.IsEmpty());
}

TEST(string_array, copies) {
    const qorStringArray source = array_of({"a", "b", "c", "d"});
    qorStringArray copy(source);
    copy.RemoveAt(0, 1);
    EXPECT_EQ(source.GetCount(), 4u);
    copy.Copy(source);
    copy.Copy(*&copy);
    EXPECT_EQ(list(copy), list(source));
    copy = array_of({"moved"});
    EXPECT_EQ(list(copy), texts{"moved"});
    copy.CopyPortion(source, 1, 2);
    EXPECT_EQ(list(copy), (texts{"b", "c"}));
    copy.CopyPortion(source, 3, 99);
    EXPECT_EQ(list(copy), texts{"d"});
    copy.CopyPortion(source, 4, 1);
    EXPECT_EQ(list(copy), texts{});
    copy.CopyPortion(source, 0xffffffff, 0xffffffff);
    EXPECT_EQ(list(copy), texts{});

    copy = source;
    copy.CopyPortion(copy, 1, 2);
    EXPECT_EQ(list(copy), (texts{"b", "c"}));
    copy.CopyPortion(copy, 2, 1);
    EXPECT_EQ(list(copy), texts{});
}

TEST(string_array, as_a_set) {
    qorStringArray array;
    EXPECT_TRUE(array.AddUnique("a"));
    EXPECT_FALSE(array.AddUnique("a"));
    EXPECT_TRUE(array.AddUnique("A"));
    EXPECT_TRUE(array.AddUnique(nullptr));
    EXPECT_FALSE(array.AddUnique(""));
    array.Append("a");
    EXPECT_EQ(array.FindString("a"), 0);
    EXPECT_EQ(array.FindString("a", 1), 3);
    EXPECT_EQ(array.FindString("a", 4), -1);
    EXPECT_EQ(array.FindString("a", 0xffffffff), -1);
    EXPECT_TRUE(array.IsPresent("A"));
    EXPECT_FALSE(array.IsPresent("b"));
    EXPECT_TRUE(array.RemoveUnique("a"));
    EXPECT_EQ(list(array), (texts{"A", "", "a"}));
    EXPECT_FALSE(array.RemoveUnique("b"));
    array.Append("x\0y", 3);
    EXPECT_FALSE(array.IsPresent("x"));
}

texts folded(texts elements) {
    for (std::string& element : elements)
        for (char& c : element)
            c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    return elements;
}

TEST(string_array, sorts_are_stable_in_both_directions) {
    generator random(27);
    for (int round = 0; round < 2000; ++round) {
        texts plain(random.below(40));
        for (std::string& element : plain)
            element = random.from("aAbB\0\xff"s, 4);
        qorStringArray array = array_of(plain);

        texts expected = plain;
        std::stable_sort(expected.begin(), expected.end());
        array.Sort(true);
        ASSERT_EQ(list(array), expected);
        std::stable_sort(expected.begin(), expected.end(), std::greater<>());
        array.Sort(false);
        ASSERT_EQ(list(array), expected);

        const auto less = [](const std::string& a, const std::string& b) { return folded({a}) < folded({b}); };
        const auto more = [](const std::string& a, const std::string& b) { return folded({a}) > folded({b}); };
        for (const bool ascending : {true, false}) {
            array = array_of(plain);
            expected = plain;
            if (ascending)
                std::stable_sort(expected.begin(), expected.end(), less);
            else
                std::stable_sort(expected.begin(), expected.end(), more);
            array.SortNoCase(ascending);
            ASSERT_EQ(list(array), expected);
        }
    }
}

TEST(string_array, the_callers_order) {
    const auto by_length = [](const char* left, const char* right, void* context) noexcept {
        ++*static_cast<int*>(context);
        return static_cast<int>(std::strlen(left)) - static_cast<int>(std::strlen(right));
    };
    qorStringArray array = array_of({"ccc", "b", "aa", "a", "", "bb"});
    int calls = 0;
    array.SortUsing(by_length, &calls);
    EXPECT_EQ(list(array), (texts{"", "b", "a", "aa", "bb", "ccc"}));
    EXPECT_GT(calls, 0);
}

TEST(string_array, an_order_that_contradicts_itself_gives_some_order) {
    generator random(28);
    const auto any = [](const char*, const char*, void* context) noexcept {
        return static_cast<int>(static_cast<generator*>(context)->below(3)) - 1;
    };
    const auto always = [](const char*, const char*, void*) noexcept { return -1; };
    for (uint32 count = 0; count < 200; ++count) {
        texts plain;
        for (uint32 i = 0; i < count; ++i)
            plain.push_back(std::to_string(i));
        std::sort(plain.begin(), plain.end());
        qorStringArray array = array_of(plain);
        array.SortUsing(any, &random);
        array.SortUsing(always, nullptr);
        texts sorted = list(array);
        std::sort(sorted.begin(), sorted.end());
        ASSERT_EQ(sorted, plain);
    }
}

// Long runs of changes, many with the array as its own source, compared with the C++ library's vector.
TEST(string_array, behaves_as_the_plain_model) {
    generator random(29);
    for (int round = 0; round < 200; ++round) {
        qorStringArray array;
        texts model;
        for (int step = 0; step < 200; ++step) {
            const uint32 size = static_cast<uint32>(model.size());
            std::string source = random.from("ab\0 "s, 30);
            const char* given = source.data();
            if (size != 0 && random.below(2) == 0) {
                const uint32 own = random.below(size);
                source = model[own];
                given = array[own];
            }
            const int32 length = static_cast<int32>(source.size());
            const uint32 index = random.below(size + 3);
            const uint32 at = std::min(index, size);
            const uint32 count = random.below(5);
            const auto begin = model.begin() + at;
            switch (random.below(9)) {
            case 0:
            case 1:
                array.Append(given, length);
                model.push_back(source);
                break;
            case 2:
            case 3:
                array.InsertAt(index, given, length);
                model.insert(begin, source);
                break;
            case 4:
                array.RemoveAt(index, count);
                model.erase(begin, begin + std::min(count, size - at));
                break;
            case 5:
                array.Sort(count % 2 == 0);
                std::sort(model.begin(), model.end());
                if (count % 2 != 0)
                    std::reverse(model.begin(), model.end());
                break;
            case 6:
                if (size < 100) {
                    array.Append(array);
                    model.reserve(2 * size);
                    std::copy_n(model.begin(), size, std::back_inserter(model));
                }
                break;
            case 7:
                array.CopyPortion(array, index, size / 2);
                model = texts(begin, begin + std::min(size / 2, size - at));
                break;
            case 8:
                array.Copy(qorStringArray(array));
                break;
            }
            ASSERT_EQ(list(array), model) << "round " << round << " step " << step;
        }
    }
}

class memory_sink final : public IQORDataSink {
public:
    void AddRef() noexcept override {}
    void Release() noexcept override {}
    int QueryInterface(const char*, void**) noexcept override { return 0; }
    bool Write(const void* bytes, uint32 size) noexcept override {
        if (contents.size() + size > room)
            return false;
        contents.append(static_cast<const char*>(bytes), size);
        return true;
    }

    std::string contents;
    std::size_t room = ~std::size_t{0};
};

class memory_source final : public IQORDataSource {
public:
    explicit memory_source(std::string text) : contents(std::move(text)) {}
    void AddRef() noexcept override {}
    void Release() noexcept override {}
    int QueryInterface(const char*, void**) noexcept override { return 0; }
    bool Read(void* bytes, uint32 size) noexcept override {
        largest = std::max(largest, size);
        if (contents.size() - at < size)
            return false;
        std::memcpy(bytes, contents.data() + at, size);
        at += size;
        return true;
    }

    std::string contents;
    std::size_t at = 0;
    uint32 largest = 0;
};

TEST(string_array_stream, form) {
    memory_sink sink;
    EXPECT_TRUE(array_of({"ab", "", "\0"s}).Write(&sink));
    EXPECT_EQ(sink.contents, "\3\0\0\0\2\0\0\0ab\0\0\0\0\1\0\0\0\0"s);
}

TEST(string_array_stream, there_and_back) {
    const texts plain = {"a", std::string(64 * 1024, 'b'), "", std::string(200001, 'c'), "d\0e"s};
    memory_sink sink;
    EXPECT_TRUE(array_of(plain).Write(&sink));
    memory_source source(sink.contents + "behind");
    qorStringArray array = array_of({"left over"});
    EXPECT_TRUE(array.Read(&source));
    EXPECT_EQ(list(array), plain);
    EXPECT_EQ(source.contents.substr(source.at), "behind");
}

TEST(string_array_stream, cut_anywhere_it_gives_the_elements_that_were_whole) {
    const texts plain = {"first", "", "second", "\0"s};
    memory_sink whole;
    ASSERT_TRUE(array_of(plain).Write(&whole));
    for (std::size_t length = 0; length < whole.contents.size(); ++length) {
        std::size_t end = 4;
        texts expected;
        for (const std::string& element : plain)
            if ((end += 4 + element.size()) <= length)
                expected.push_back(element);
        memory_source source(whole.contents.substr(0, length));
        qorStringArray array = array_of({"left over"});
        EXPECT_FALSE(array.Read(&source));
        EXPECT_EQ(list(array), expected) << length;

        memory_sink small;
        small.room = length;
        EXPECT_FALSE(array_of(plain).Write(&small)) << length;
    }
}

TEST(string_array_stream, wrong_lengths_take_no_memory) {
    for (const char* const length : {"\xff\xff\xff\x7f", "\xff\xff\xff\xff", "\xfe\xff\xff\x7f"}) {
        memory_source source("\xff\xff\xff\xff\1\0\0\0x"s + std::string(length, 4) + "few bytes");
        qorStringArray array;
        EXPECT_FALSE(array.Read(&source));
        EXPECT_EQ(list(array), texts{"x"});
        EXPECT_LE(source.largest, 64u * 1024);
    }
    qorClearLastError();
    memory_source impossible("\1\0\0\0\xff\xff\xff\xff"s);
    EXPECT_FALSE(qorStringArray().Read(&impossible));
    EXPECT_EQ(last_error(), qorError_cannot_read_file);
}

} // namespace
