#include "container_support.h"

#include "qor/system/template/Object.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <unordered_set>

using qor::test::last_error_number;
using qor::test::last_error_text;
using qor::test::read;
using qor::test::written;

namespace {

constexpr double infinity = std::numeric_limits<double>::infinity();
constexpr double nan = std::numeric_limits<double>::quiet_NaN();
constexpr int64 least = std::numeric_limits<int64>::min();
constexpr int64 most = std::numeric_limits<int64>::max();
constexpr uint64 most_natural = ~uint64{0};

qorVariant bytes(std::string_view text) { return qorVariant::Bytes(std::as_bytes(std::span(text))); }

qorVariant json(std::string_view text) {
    qorVariant value;
    EXPECT_TRUE(value.ReadJson(text)) << text << ": " << last_error_text();
    return value;
}

std::string json_of(const qorVariant& value, uint32 indent = 0) {
    qorString text;
    EXPECT_TRUE(value.WriteJson(text, indent)) << last_error_text();
    return text.Text();
}

TEST(variant, knows_its_kind) {
    EXPECT_EQ(qorVariant().Kind(), qorVariantKind::null);
    EXPECT_EQ(qorVariant(nullptr).Kind(), qorVariantKind::null);
    EXPECT_EQ(qorVariant(true).Kind(), qorVariantKind::logical);
    EXPECT_EQ(qorVariant(5).Kind(), qorVariantKind::integer);
    EXPECT_EQ(qorVariant(short{5}).Kind(), qorVariantKind::integer);
    EXPECT_EQ(qorVariant(5u).Kind(), qorVariantKind::natural);
    EXPECT_EQ(qorVariant(5.0f).Kind(), qorVariantKind::real);
    EXPECT_EQ(qorVariant("x").Kind(), qorVariantKind::text);
    EXPECT_EQ(qorVariant(std::string("x")).Kind(), qorVariantKind::text);
    EXPECT_EQ(qorVariant(qorString("x")).Kind(), qorVariantKind::text);
    EXPECT_EQ(qorVariant::Time(7).Kind(), qorVariantKind::time);
    EXPECT_EQ(bytes("x").Kind(), qorVariantKind::bytes);
    EXPECT_EQ(qorVariant::List().Kind(), qorVariantKind::list);
    EXPECT_EQ(qorVariant::Set().Kind(), qorVariantKind::set);
    static_assert(!std::is_constructible_v<qorVariant, const int*>);
}

TEST(variant, converts_numbers_that_keep_their_value) {
    EXPECT_EQ(qorVariant(-1).AsInt64(), -1);
    EXPECT_EQ(qorVariant(-1).AsUint64(), std::nullopt);
    EXPECT_EQ(qorVariant(-1).AsDouble(), -1.0);
    EXPECT_EQ(qorVariant(most_natural).AsInt64(), std::nullopt);
    EXPECT_EQ(qorVariant(most_natural).AsUint64(), most_natural);
    EXPECT_EQ(qorVariant(most_natural).AsDouble(), std::nullopt);
    EXPECT_EQ(qorVariant(most).AsDouble(), std::nullopt);
    EXPECT_EQ(qorVariant(least).AsDouble(), -0x1p63);
    EXPECT_EQ(qorVariant(uint64{1} << 63).AsDouble(), 0x1p63);
    EXPECT_EQ(qorVariant((int64{1} << 53) + 1).AsDouble(), std::nullopt);
    EXPECT_EQ(qorVariant(1.5).AsInt64(), std::nullopt);
    EXPECT_EQ(qorVariant(-0x1p63).AsInt64(), least);
    EXPECT_EQ(qorVariant(0x1p63).AsInt64(), std::nullopt);
    EXPECT_EQ(qorVariant(0x1p63).AsUint64(), uint64{1} << 63);
    EXPECT_EQ(qorVariant(0x1p64).AsUint64(), std::nullopt);
    for (const double none : {nan, infinity, -infinity, -0.0})
        EXPECT_EQ(qorVariant(none).AsInt64(), std::nullopt) << none;
    EXPECT_EQ(qorVariant("1").AsInt64(), std::nullopt);
    EXPECT_EQ(qorVariant(true).AsInt64(), std::nullopt);
    EXPECT_EQ(qorVariant(1).AsBool(), std::nullopt);
    EXPECT_EQ(qorVariant::Time(7).AsTime(), 7u);
    EXPECT_EQ(qorVariant::Time(7).AsUint64(), std::nullopt);
}

TEST(variant, keeps_all_bytes) {
    const std::string_view text("a\0b", 3);
    const qorVariant variant(text);
    EXPECT_EQ(variant.AsText(), text);
    EXPECT_EQ(variant.AsText()->data()[3], '\0');
    EXPECT_EQ(variant.AsBytes(), std::nullopt);
    EXPECT_EQ(bytes(text).AsBytes()->size(), 3u);
    EXPECT_EQ(qorVariant(static_cast<const char*>(nullptr)).AsText(), "");
    EXPECT_TRUE(bytes("").AsBytes()->empty());
}

TEST(variant, copies_everything) {
    qorVariant list = qorVariant::List();
    list.AsList()->Append("text");
    list.AsList()->AppendSet()->Set("name", 1);
    qorVariant copy = list;
    EXPECT_EQ(copy, list);
    copy.AsList()->GetValues()[1].AsSet()->Set("name", 2);
    EXPECT_NE(copy, list);
    EXPECT_EQ((*list.AsList()->GetValues()[1].AsSet())["name"], 1);
    list = list.AsList()->GetValues()[0]; // a part of itself
    EXPECT_EQ(list, "text");
    const qorVariant& same = copy;
    copy = same;
    EXPECT_EQ(copy.AsList()->GetCount(), 2u);
    const qorVariant moved = std::move(copy);
    EXPECT_TRUE(copy.IsNull());
    EXPECT_EQ(moved.AsList()->GetCount(), 2u);
}

// Values in ascending order; neighbours in the same row are equal.
std::vector<std::vector<qorVariant>> ordered() {
    qorVariant empty_list = qorVariant::List(), list = qorVariant::List(), longer = qorVariant::List();
    list.AsList()->Append(2);
    longer.AsList()->Append(2u);
    longer.AsList()->Append(nullptr);
    qorVariant set = qorVariant::Set(), same = qorVariant::Set(), other = qorVariant::Set();
    set.AsSet()->Set("a", 1);
    set.AsSet()->Set("b", 2);
    same.AsSet()->Set("b", 2);
    same.AsSet()->Set("a", 1);
    other.AsSet()->Set("a", 2);
    return {{qorVariant(), nullptr},
            {false},
            {true},
            {-nan},
            {-infinity},
            {-0x1p64},
            {std::nextafter(-0x1p63, -infinity)},
            {least},
            {-0x1p63},
            {-5},
            {-5.0},
            {-4.5},
            {-1},
            {-0.5},
            {0, 0u},
            {-0.0},
            {0.0},
            {std::numeric_limits<double>::denorm_min()},
            {0.5},
            {1, 1u, uint64{1}},
            {1.0},
            {1.5},
            {(int64{1} << 53) + 1},
            {0x1p53 + 2},
            {most, uint64{most}},
            {0x1p63},
            {(uint64{1} << 63) + 1},
            {most_natural},
            {0x1p64},
            {infinity},
            {nan},
            {qorVariant::Time(0)},
            {qorVariant::Time(most_natural)},
            {"", qorString(), std::string()},
            {"a", std::string_view("a")},
            {"a "},
            {"b"},
            {"\xff"},
            {bytes("")},
            {bytes("a")},
            {empty_list},
            {list},
            {longer},
            {qorVariant::Set()},
            {set, same},
            {other}};
}

TEST(variant, has_a_total_order) {
    const auto rows = ordered();
    for (std::size_t i = 0; i < rows.size(); ++i) {
        for (std::size_t k = 0; k < rows.size(); ++k) {
            for (const qorVariant& left : rows[i]) {
                for (const qorVariant& right : rows[k]) {
                    EXPECT_EQ(left <=> right, i <=> k) << i << " " << k;
                    EXPECT_EQ(left == right, i == k) << i << " " << k;
                    if (i == k) {
                        EXPECT_EQ(left.Hash(), right.Hash()) << i;
                    }
                }
            }
        }
    }
}

TEST(variant, hashes_differ) {
    std::unordered_set<uint64> hashes;
    for (const auto& row : ordered())
        EXPECT_TRUE(hashes.insert(row[0].Hash()).second)
            << static_cast<uint32>(row[0].Kind()) << " " << row[0].m_data.natural;
    for (int i = 2; i < 20'000; ++i)
        EXPECT_TRUE(hashes.insert(qorVariant(i).Hash()).second);
    std::string text;
    for (int i = 0; i < 200; ++i)
        EXPECT_TRUE(hashes.insert(qorVariant(text += '\0').Hash()).second) << i;
}

TEST(variant, survives_its_stream_form) {
    for (const auto& row : ordered()) {
        const std::string form = written(row[0]);
        qorVariant back("before");
        ASSERT_TRUE(read(back, form));
        EXPECT_EQ(back, row[0]);
        EXPECT_EQ(back.Kind(), row[0].Kind());
        for (std::size_t length = 0; length < form.size(); ++length) {
            qorVariant unchanged("before");
            EXPECT_FALSE(read(unchanged, form.substr(0, length)));
            EXPECT_EQ(unchanged, "before");
        }
    }
    using namespace std::literals;
    EXPECT_EQ(written(qorVariant("ab")), "\x01\x71\x01\x00\x06\x00\x02\x00\x00\x00"
                                         "ab"s);
    EXPECT_EQ(written(qorVariant(-2)), "\x01\x71\x01\x00\x02\x00\xfe\xff\xff\xff\xff\xff\xff\xff"s);
}

TEST(variant, refuses_what_is_no_stream_form) {
    using namespace std::literals;
    const std::string head = "\x01\x71\x01\x00"s;
    const struct {
        const char* what;
        std::string form;
    } cases[] = {
        {"kind", head + "\x0a\x00"s},
        {"truth value", head + "\x01\x00\x02\x00"s},
        {"length", head + "\x06\x00\xff\xff\xff\xff"s},
        {"a name twice", head + "\x09\x00\x02\x00\x00\x00\x01\x00\x00\x00n\x00\x00\x01\x00\x00\x00n\x00\x00"s},
        {"another form", "\x02"s + head.substr(1) + "\x00\x00"s},
        {"another version", "\x01\x71\x02\x00\x00\x00"s},
    };
    for (const auto& [what, form] : cases) {
        qorVariant value(1);
        EXPECT_FALSE(read(value, form)) << what;
        EXPECT_EQ(last_error_number(), static_cast<uint32>(qorError_stream_form)) << what;
        EXPECT_EQ(value, 1);
    }
}

// Gives a few bytes and then fails. Remembers how many bytes it was asked for at once.
class short_source final : public qor::object<IQORDataSource> {
public:
    explicit short_source(std::string bytes) : object("short_source", "IQORDataSource"), m_bytes(std::move(bytes)) {}

    bool Read(void* to, uint32 size) noexcept override {
        most = std::max(most, size);
        if (size > m_bytes.size() - m_at)
            return false;
        std::memcpy(to, m_bytes.data() + m_at, size);
        m_at += size;
        return true;
    }

    uint32 most = 0;

private:
    std::string m_bytes;
    std::size_t m_at = 0;
};

// A stream may claim more than it has. Room for what these claim would not even be there.
TEST(variant, allocates_only_what_arrives) {
    using namespace std::literals;
    for (const char kind : {'\x06', '\x07', '\x08', '\x09'}) {
        zetSmartPointer<short_source> source;
        source.AttachNew(QOR_NEW short_source("\x01\x71\x01\x00"s + kind + "\x00\xfe\xff\xff\xff"s));
        qorVariant value("before");
        EXPECT_FALSE(value.Read(*source));
        EXPECT_LE((*source)->most, 64u * 1024);
        EXPECT_EQ(value, "before");
    }
}

TEST(variant, nesting_has_a_limit) {
    qorVariant outer = qorVariant::List();
    IQORVariantList* inner = outer.AsList();
    for (uint32 level = 1; level < qorMaxNesting; ++level)
        ASSERT_NE(inner = inner->AppendList(), nullptr) << level;
    EXPECT_EQ(inner->AppendList(), nullptr);
    EXPECT_EQ(last_error_number(), static_cast<uint32>(qorError_nested_too_deep));
    EXPECT_EQ(inner->AppendSet(), nullptr);
    EXPECT_FALSE(inner->Append(qorVariant::List()));
    EXPECT_TRUE(inner->Append(1));
    const qorVariant copy = outer;
    EXPECT_EQ(copy, outer);
    qorVariant around = qorVariant::List();
    EXPECT_FALSE(around.AsList()->Append(outer));
    EXPECT_EQ(around.AsList()->GetCount(), 0u);
    EXPECT_TRUE(around.AsList()->Append(outer.AsList()->GetValues()[0]));

    // The same from outside, without the stack that deeper nesting would take.
    const std::string form = written(outer);
    qorVariant back;
    EXPECT_TRUE(read(back, form));
    EXPECT_EQ(back, outer);
    std::string deep = form.substr(0, 4);
    for (int i = 0; i < 1'000'000; ++i)
        deep += form.substr(4, 6);
    EXPECT_FALSE(read(back, deep));
    EXPECT_EQ(last_error_number(), static_cast<uint32>(qorError_nested_too_deep));
    EXPECT_TRUE(back.ReadJson(std::string(qorMaxNesting, '[') + std::string(qorMaxNesting, ']')));
    EXPECT_FALSE(back.ReadJson(std::string(1'000'000, '[')));
    EXPECT_EQ(last_error_number(), static_cast<uint32>(qorError_nested_too_deep));
    std::string names;
    for (int i = 0; i < 1'000'000; ++i)
        names += "{\"a\":";
    EXPECT_FALSE(back.ReadJson(names));
    EXPECT_EQ(last_error_number(), static_cast<uint32>(qorError_nested_too_deep));
}

TEST(variant, a_list_can_hold_a_copy_of_itself) {
    qorVariantList list;
    list->Append(1);
    EXPECT_TRUE(list->Append(qorVariant::List(list)));
    EXPECT_EQ(list->GetValues()[1].AsList()->GetCount(), 1u);
    IQORVariantList* const inner = list->GetValues()[1].AsList();
    EXPECT_TRUE(inner->Append(list->GetValues()[1]));
    EXPECT_EQ(inner->GetCount(), 2u);
    EXPECT_EQ(inner->GetValues()[1].AsList()->GetCount(), 1u);
}

TEST(variant, json_is_exact) {
    for (const auto& [text, value] : std::vector<std::pair<std::string, qorVariant>>{
             {"null", {}},
             {"true", true},
             {"false", false},
             {"0", 0},
             {"-1", -1},
             {"9223372036854775807", most},
             {"-9223372036854775808", least},
             {"9223372036854775808", uint64{1} << 63},
             {"18446744073709551615", most_natural},
             {"9007199254740993", (int64{1} << 53) + 1},
             {"1.0", 1.0},
             {"0.1", 0.1},
             {"-0.0", -0.0},
             {"1.7976931348623157e+308", std::numeric_limits<double>::max()},
             {"5e-324", std::numeric_limits<double>::denorm_min()},
             {"\"\"", ""},
             {"\"a\\u0000\\\"\\\\\\n\xc3\xa4\"", std::string_view("a\0\"\\\n\xc3\xa4", 7)},
             {"[]", qorVariant::List()},
             {"{}", qorVariant::Set()}}) {
        const qorVariant back = json(text);
        EXPECT_EQ(back, value) << text;
        EXPECT_EQ(back.Kind(), value.Kind()) << text;
        EXPECT_EQ(json_of(value), text);
    }
    EXPECT_EQ(json(" \"\\ud83d\\ude00\" "), "\xf0\x9f\x98\x80");
    EXPECT_EQ(json_of(5u), "5");
    EXPECT_EQ(json_of(qorVariant::Time(most_natural)), "18446744073709551615");
    for (const auto& [plain, coded] : {std::pair("", "\"\""),
                                       {"f", "\"Zg==\""},
                                       {"fo", "\"Zm8=\""},
                                       {"foo", "\"Zm9v\""},
                                       {"\xff\xfe\xfd", "\"//79\""}})
        EXPECT_EQ(json_of(bytes(plain)), coded);
}

TEST(variant, json_nests_and_indents) {
    const std::string text = R"({"name":"qor","ports":[80,443,{}],"none":[]})";
    EXPECT_EQ(json_of(json(text)), text);
    const std::string lines =
        "{\n  \"name\": \"qor\",\n  \"ports\": [\n    80,\n    443,\n    {}\n  ],\n  \"none\": []\n}";
    EXPECT_EQ(json_of(json(text), 2), lines);
    EXPECT_EQ(json(lines), json(text));
}

TEST(variant, json_says_why_it_refuses) {
    const struct {
        const char* text;
        const char* reason;
    } cases[] = {
        {"", "unexpected end"},
        {"[1,", "column 4"},
        {"{\"a\":1,\"a\":2}", "'a' stands twice"},
        {"18446744073709551616", "18446744073709551616 does not fit"},
        {"-9223372036854775809", "does not fit"},
        {"1e999", "overflow"},
        {"\"\xff\"", "UTF-8"},
        {"1 2", "end of input"},
        {"NaN", "invalid"},
        {"\"\\ud83d\"", "surrogate"},
        {"[1] x", "invalid"},
    };
    for (const auto& [text, reason] : cases) {
        qorVariant value("before");
        EXPECT_FALSE(value.ReadJson(text)) << text;
        EXPECT_EQ(last_error_number(), static_cast<uint32>(qorError_json_invalid)) << text;
        EXPECT_NE(last_error_text().find(reason), std::string::npos) << last_error_text();
        EXPECT_EQ(last_error_text().find("exception"), std::string::npos) << last_error_text();
        EXPECT_EQ(value, "before");
    }
    for (const qorVariant& value : {qorVariant(nan), qorVariant(infinity), qorVariant("\xff"), qorVariant("\xc3")}) {
        qorVariant list = qorVariant::List();
        list.AsList()->Append(value);
        qorString out("before");
        EXPECT_FALSE(list.WriteJson(out));
        EXPECT_TRUE(out.IsEmpty());
        EXPECT_EQ(last_error_number(), static_cast<uint32>(qorError_json_impossible));
    }
}

} // namespace
