#include "container_support.h"

#include <algorithm>
#include <map>
#include <random>
#include <unordered_map>

using qor::test::last_error_number;
using qor::test::read;
using qor::test::refuses_each_beginning;
using qor::test::written;

namespace {

// How the tests make keys and values of each type. Texts lie in `texts`, so that views of them stay valid.
template <class TYPE>
TYPE make(uint32 number) {
    if constexpr (std::is_same_v<TYPE, qorTextView>) {
        static std::map<uint32, std::string> texts;
        std::string& text = texts[number];
        if (text.empty()) // some with a block of their own, some without
            text = (number % 2 != 0 ? "a text that needs a block of its own " : "t") + std::to_string(number);
        return std::string_view(text);
    } else if constexpr (std::is_same_v<TYPE, void*>) {
        return reinterpret_cast<void*>(std::uintptr_t{number});
    } else {
        return number;
    }
}

template <class MAP, class KEY, class VALUE>
struct kind {
    using map = MAP;
    using key = KEY;
    using value = VALUE;
};

template <class KIND>
class maps : public testing::Test {
public:
    using map = typename KIND::map;
    using key_type = typename KIND::key;
    using value_type = typename KIND::value;

    static key_type key_of(uint32 number) { return make<key_type>(number); }
    static value_type value_of(uint32 number) { return make<value_type>(number + 1000); }

    // A map and a plain one with the same entries.
    map m_full;
    std::map<uint32, uint32> m_plain;

    void fill(uint32 count) {
        for (uint32 i = 0; i < count; ++i)
            EXPECT_TRUE(m_full->Set(key_of(i), value_of(m_plain[i] = i * 3)));
    }

    void expect_equal() {
        ASSERT_EQ(m_full->GetCount(), m_plain.size());
        for (const auto& [key, value] : m_plain)
            ASSERT_EQ(m_full->Find(key_of(key)), value_of(value)) << key;
        std::vector<key_type> walked, sorted, expected(m_plain.size());
        for (const auto& [key, value] : m_full)
            walked.push_back(key);
        for (const auto& [key, value] : m_plain)
            sorted.push_back(key_of(key));
        std::sort(sorted.begin(), sorted.end());
        std::sort(walked.begin(), walked.end());
        ASSERT_EQ(walked, sorted);
        ASSERT_EQ(m_full->GetSortedKeys(expected.data(), expected.size()), sorted.size());
        ASSERT_EQ(expected, sorted);
    }
};

using kinds =
    testing::Types<kind<qorMapStringToVoid, qorTextView, void*>, kind<qorMapStringToU32, qorTextView, uint32>,
                   kind<qorMapU32ToString, uint32, qorTextView>, kind<qorMapU32ToVoid, uint32, void*>,
                   kind<qorMapStringToString, qorTextView, qorTextView>, kind<qorMapU32ToU32, uint32, uint32>>;
TYPED_TEST_SUITE(maps, kinds);

TYPED_TEST(maps, do_what_a_map_does) {
    std::mt19937 random(1);
    auto& full = this->m_full;
    auto& plain = this->m_plain;
    for (int step = 0; step < 20'000; ++step) {
        const uint32 key = random() % 500, value = random() % 100;
        const bool is_known = plain.count(key) != 0;
        switch (random() % 5) {
        case 0:
            ASSERT_EQ(full->Set(this->key_of(key), this->value_of(value)), !is_known);
            plain[key] = value;
            break;
        case 1:
            ASSERT_EQ(full->Add(this->key_of(key), this->value_of(value)), !is_known);
            plain.emplace(key, value);
            break;
        case 2:
            ASSERT_EQ(full->Remove(this->key_of(key)), is_known);
            plain.erase(key);
            break;
        default:
            ASSERT_EQ(full->IsPresent(this->key_of(key)), is_known);
        }
    }
    this->expect_equal();
    full->Empty();
    plain.clear();
    this->expect_equal();
}

TYPED_TEST(maps, take_many_at_once) {
    auto& full = this->m_full;
    auto& plain = this->m_plain;
    std::vector<typename TestFixture::key_type> keys;
    std::vector<typename TestFixture::value_type> values, got(3000);
    for (uint32 i = 0; i < 3000; ++i) {
        keys.push_back(this->key_of(i % 2000)); // the last thousand for the second time
        values.push_back(this->value_of(i));
        plain[i % 2000] = i;
    }
    full->Reserve(2000);
    EXPECT_EQ(full->SetMany(keys.data(), values.data(), 3000), 2000u);
    this->expect_equal();
    EXPECT_EQ(full->AddMany(keys.data(), values.data(), 3000), 0u);
    this->expect_equal();
    EXPECT_EQ(full->RemoveMany(keys.data(), 500), 500u);
    EXPECT_EQ(full->RemoveMany(keys.data(), 500), 0u);
    EXPECT_EQ(full->AddMany(keys.data(), values.data(), 100), 100u);
    const auto unset = this->value_of(99'999);
    std::fill(got.begin(), got.end(), unset);
    const std::unique_ptr<bool[]> found(new bool[3000]);
    EXPECT_EQ(full->GetMany(keys.data(), got.data(), found.get(), 3000), 2200u);
    for (uint32 i = 0; i < 3000; ++i) {
        const uint32 key = i % 2000;
        ASSERT_EQ(found[i], key < 100 || key >= 500);
        ASSERT_EQ(got[i], !found[i] ? unset : this->value_of(key < 100 ? key : plain[key])) << i;
    }
    EXPECT_EQ(full->GetMany(keys.data(), got.data(), nullptr, 3000), 2200u);
    EXPECT_EQ(full->GetMany(nullptr, nullptr, nullptr, 0), 0u);
}

TYPED_TEST(maps, remove_what_a_condition_selects) {
    auto& full = this->m_full;
    auto& plain = this->m_plain;
    this->fill(1000);
    const auto limit = this->key_of(500);
    const uint64 changes = *full->GetChanges();
    const uint64 removed = full->RemoveIf([&](auto key, auto) { return key < limit; });
    EXPECT_EQ(removed, static_cast<uint64>(std::count_if(plain.begin(), plain.end(), [&](const auto& each) {
                  return this->key_of(each.first) < limit;
              })));
    EXPECT_NE(*full->GetChanges(), changes);
    std::erase_if(plain, [&](const auto& each) { return this->key_of(each.first) < limit; });
    this->expect_equal();
}

TYPED_TEST(maps, copy_and_compare) {
    auto& full = this->m_full;
    auto& plain = this->m_plain;
    this->fill(1000);
    typename TestFixture::map copy(full), other;
    EXPECT_TRUE(copy == full);
    EXPECT_EQ(copy->GetHash(), full->GetHash());
    for (uint32 i = 1000; i-- != 0;) // in another order, with another table
        other->Set(this->key_of(i), this->value_of(plain[i]));
    EXPECT_TRUE(other == full);
    EXPECT_EQ(other->GetHash(), full->GetHash());
    other->Set(this->key_of(7), this->value_of(1));
    EXPECT_FALSE(other == full);
    EXPECT_NE(other->GetHash(), full->GetHash());
    other->Remove(this->key_of(7));
    EXPECT_FALSE(other == full);
    EXPECT_TRUE(full->Copy(full));
    this->expect_equal();
}

TYPED_TEST(maps, walk_in_pieces_until_they_change) {
    auto& full = this->m_full;
    this->fill(300);
    for (const uint64 room : {1, 7, 300, 1000}) {
        qorMapCursor cursor;
        std::vector<typename TestFixture::map::object_type::entry> entries(room);
        uint64 total = 0;
        while (const uint64 count = full->Next(cursor, entries.data(), room)) {
            EXPECT_LE(count, room);
            total += count;
        }
        EXPECT_EQ(total, 300u);
    }
    qorMapCursor cursor;
    std::vector<typename TestFixture::map::object_type::entry> entries(10);
    EXPECT_EQ(full->Next(cursor, entries.data(), 10), 10u);
    EXPECT_FALSE(full->Remove(this->key_of(5000)));
    EXPECT_EQ(full->Next(cursor, entries.data(), 10), 10u) << "nothing has changed";
    full->Add(this->key_of(5000), this->value_of(1));
    EXPECT_EQ(full->Next(cursor, entries.data(), 10), 0u);
    uint32 rounds = 0;
    for ([[maybe_unused]] const auto& each : full) {
        if (++rounds == 10)
            full->Remove(this->key_of(5000)); // reported as an assertion
    }
    EXPECT_EQ(rounds, 10u);
}

TYPED_TEST(maps, survive_their_stream_form) {
    auto& full = this->m_full;
    this->fill(20);
    if constexpr (std::is_same_v<typename TestFixture::value_type, void*>) {
        zetSmartPointer<IQORMemoryDataSink> sink;
        create_IQORMemoryDataSink(sink.Out());
        EXPECT_FALSE(full->Write(*sink));
        EXPECT_EQ(last_error_number(), static_cast<uint32>(qorError_not_supported));
        EXPECT_FALSE(read(*full.Interface(), ""));
        EXPECT_EQ(full->GetCount(), 20u);
    } else {
        typename TestFixture::map back;
        EXPECT_TRUE(read(*back.Interface(), written(*full.Interface())));
        EXPECT_TRUE(back == full);
        EXPECT_EQ(written(*back.Interface()), written(*full.Interface())) << "the order is that of the keys";
        refuses_each_beginning(full);
        // Nothing is allocated for a count alone.
        std::string form = written(*full.Interface());
        for (std::size_t i = 4; i < 12; ++i)
            form[i] = '\xff';
        EXPECT_FALSE(read(*back.Interface(), form));
        const std::string one = [&] {
            typename TestFixture::map single;
            single->Set(this->key_of(1), this->value_of(1));
            return written(*single.Interface());
        }();
        std::string twice = one + one.substr(12);
        twice[4] = 2;
        EXPECT_FALSE(read(*back.Interface(), twice)) << "a key twice";
        EXPECT_EQ(last_error_number(), static_cast<uint32>(qorError_stream_form));
        EXPECT_TRUE(back == full);
    }
}

TEST(map, takes_its_own_texts) {
    qorMapStringToString map;
    map->Set("a", "b");
    std::string last = "a";
    for (int i = 0; i < 1000; ++i) {
        for (const auto& [key, value] : map) {
            last += 'x';
            map->Set(last, key); // moves the table, in which the key lies
            break;
        }
        ASSERT_TRUE(map->Find(last));
        ASSERT_TRUE(map->Find(*map->Find(last))) << "each value is a key";
    }
    qorMapU32ToString numbers;
    numbers->Set(0, "t");
    for (uint32 i = 1; i < 1000; ++i)
        numbers->Set(i, *numbers->Find(i - 1));
    EXPECT_EQ(*numbers->Find(999), "t");
    numbers->Set(5, *numbers->Find(5));
    EXPECT_EQ(*numbers->Find(5), "t");
}

TEST(map, texts_are_bytes) {
    qorMapStringToU32 map;
    EXPECT_TRUE(map->Set("", 1));
    EXPECT_TRUE(map->Set(std::string_view("\0", 1), 2));
    EXPECT_TRUE(map->Set(std::string_view("\0\0", 2), 3));
    EXPECT_TRUE(map->Set("\xff", 4));
    EXPECT_EQ(map->Find(std::string_view("\0", 1)), 2u);
    EXPECT_EQ(map->GetCount(), 4u);
    qorTextView keys[4];
    EXPECT_EQ(map->GetSortedKeys(keys, 2), 2u);
    EXPECT_EQ(keys[0], "");
    EXPECT_EQ(keys[1], std::string_view("\0", 1));
}

} // namespace
