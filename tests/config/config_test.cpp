#include "qor/qor.h"
#include "support/temp_folder.h"

#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <limits>

namespace {

using qor::test::read_file;

class config : public testing::Test {
protected:
    // Opens a file with this text.
    qorConfig open(std::string_view text, const char* name = "app.toml") {
        const std::string path = std::filesystem::absolute(m_folder.file(name, text)).string();
        EXPECT_TRUE(qorOpenConfigFileAbsolute(path.c_str(), m_file.Out())) << last_error();
        return qorConfig(*m_file);
    }

    static std::string last_error() {
        qorString text;
        qorGetLastError(text);
        return std::string(std::string_view(text));
    }

    std::string text() {
        EXPECT_TRUE(m_file->Save()) << last_error();
        qorString path;
        m_file->GetPath(path);
        return read_file(path.Text());
    }

    qor::test::temp_folder m_folder;
    zetSmartPointer<IQORConfigFile> m_file;
};

template <class TYPE>
std::vector<std::string> list_of(const TYPE& texts) {
    std::vector<std::string> all;
    for (const qorString& each : texts)
        all.emplace_back(std::string_view(each));
    return all;
}

TEST_F(config, values_have_types) {
    const qorConfig all = open("yes = true\nint = -7\nhex = 0xff\nnum = 2.5\ntext = 'a'\n"
                               "time = 1979-05-27T07:32:00.5+01:30\nday = 2026-02-03\nclock = 04:05:06\n"
                               "list = [1, 2]\n[t]\nx = {y = 1}\n");
    EXPECT_EQ(all.Get("yes", false), true);
    EXPECT_EQ(all.Get("int", 0), -7);
    EXPECT_EQ(all.Get<uint8>("hex", 0), 255);
    EXPECT_EQ(all.Get("num", 0.0), 2.5);
    EXPECT_EQ(all.Get("int", 0.0), -7.0);
    EXPECT_EQ(all.Get("text", ""), "a");
    const auto time = all.Find<qorConfigTime>("time");
    ASSERT_TRUE(time.has_value());
    EXPECT_TRUE(time->has_date && time->has_time && time->has_offset);
    EXPECT_EQ(time->year, 1979);
    EXPECT_EQ(time->minute, 32);
    EXPECT_EQ(time->nanosecond, 500'000'000u);
    EXPECT_EQ(time->offset, 90);
    EXPECT_FALSE(all.Find<qorConfigTime>("day")->has_time);
    EXPECT_FALSE(all.Find<qorConfigTime>("clock")->has_date);
    EXPECT_EQ(all["list"].Count(), 2u);
    EXPECT_EQ(all["list"].Kind(), qorConfigKind::array);
    EXPECT_EQ(all.Get("t.x.y", 0), 1);
    EXPECT_EQ(all["t"]["x"].Get("y", 0), 1);
    EXPECT_EQ(all.Kind(), qorConfigKind::table);
}

TEST_F(config, defaults_stand_for_what_is_absent) {
    const qorConfig all = open("a = 1\n");
    qorClearLastError();
    EXPECT_EQ(all.Get("b", 5), 5);
    EXPECT_EQ(all.Get("a.b", 5), 5);
    EXPECT_EQ(all.Get("a[0]", "x"), "x");
    EXPECT_EQ(all["none"].Kind(), qorConfigKind::none);
    EXPECT_TRUE(all["none"].Names().IsEmpty());
    EXPECT_EQ(all["none"].Origin().line, 0u);
    EXPECT_EQ(last_error(), "There is no error to report.");
}

TEST_F(config, a_wrong_value_is_told_with_its_line) {
    const qorConfig all = open("# one\nport = 'x'\nsize = 70000\nneg = -1\n");
    EXPECT_EQ(all.Get<uint16>("port", 80), 80);
    EXPECT_TRUE(last_error().ends_with("app.toml, line 2: 'port' must be an integer.")) << last_error();
    EXPECT_FALSE(all.Find<uint16>("size").has_value());
    EXPECT_TRUE(last_error().ends_with("app.toml, line 3: 'size' must be between 0 and 65535.")) << last_error();
    EXPECT_FALSE(all.Find<uint64>("neg").has_value());
    EXPECT_EQ(all.Find<int32>("size"), 70000);
    EXPECT_FALSE(all.Find<std::string_view>("neg").has_value());
    EXPECT_FALSE(all.Find<bool>("neg").has_value());
}

TEST_F(config, paths) {
    const qorConfig all = open("'a.b' = 1\n\"\" = 2\n'q\"\\' = 3\n\"\\u00e4 \\n\" = 4\nl = [[1, 2], [3]]\n");
    EXPECT_EQ(all.Get("\"a.b\"", 0), 1);
    EXPECT_EQ(all.Get("'a.b'", 0), 1);
    EXPECT_EQ(all["a.b"].Get("", 0), 1);
    EXPECT_EQ(all[""].Get("", 0), 2);
    EXPECT_EQ(all["q\"\\"].Get("", 0), 3);
    EXPECT_EQ(all["\u00e4 \n"].Get("", 0), 4);
    EXPECT_EQ(all["l"][0].Get("[1]", 0), 2);
    EXPECT_EQ(all.Get("l[1][0]", 0), 3);
    EXPECT_EQ(list_of(all.Names()), (std::vector<std::string>{"a.b", "", "q\"\\", "\u00e4 \n", "l"}));
    for (const char* wrong : {".", "a.", ".a", "a..b", "[", "[1", "a[x]", "a[-1]", "a b", "'a", "a]", "a[99999999999]",
                              "\"\\x\"", "a[0]b"}) {
        qorClearLastError();
        EXPECT_EQ(all.Get(wrong, 7), 7) << wrong;
        EXPECT_EQ(last_error(), "'" + std::string(wrong) + "' is not the path of a value in a configuration.");
    }
}

TEST_F(config, elements_and_names_in_order) {
    const qorConfig all = open("[[server]]\nport = 1\n[z]\nq=1\n[[server]]\nport = 2\n[a]\n");
    std::vector<int> ports;
    for (const qorConfig& each : all["server"])
        ports.push_back(each.Get("port", 0));
    EXPECT_EQ(ports, (std::vector{1, 2}));
    EXPECT_EQ(list_of(all.Names()), (std::vector<std::string>{"server", "z", "a"}));
    EXPECT_EQ(all["server"][1].Path(), "server[1]");
    for (const qorConfig& none : all["z"])
        ADD_FAILURE() << none.Path();
}

TEST_F(config, changes_keep_the_rest) {
    const qorConfig all =
        open("# head\r\n\r\n[a] # about a\r\n  x = 1   # about x\r\n  s = 'old' # s\r\n\r\n[b]\r\ny = 2");
    EXPECT_TRUE(all.Set("a.x", 5));
    EXPECT_TRUE(all.Set("a.s", "new \"one\""));
    EXPECT_TRUE(all.Set("a.t", true));
    EXPECT_TRUE(all.Set("b.z", 1.0));
    EXPECT_TRUE(all.Set("root", "r"));
    EXPECT_TRUE(m_file->IsModified());
    EXPECT_EQ(text(), "# head\r\n\r\nroot = \"r\"\r\n\r\n[a] # about a\r\n  x = 5   # about x\r\n"
                      "  s = \"new \\\"one\\\"\" # s\r\n  t = true\r\n\r\n[b]\r\ny = 2\r\nz = 1.0\r\n");
    EXPECT_FALSE(m_file->IsModified());
}

TEST_F(config, new_tables_and_lists) {
    const qorConfig all = open("a = 1\n");
    EXPECT_TRUE(all.Set("s.t.x", 1));
    EXPECT_TRUE(all.Set("list[].name", "one"));
    EXPECT_TRUE(all.Set("list[].name", "two"));
    EXPECT_TRUE(all.Set("list[0].sub.q", 3));
    EXPECT_TRUE(all.Set("ports[]", 80));
    EXPECT_TRUE(all.Set("ports[]", 81));
    EXPECT_EQ(text(), "a = 1\nports = [80, 81]\n\n[s.t]\nx = 1\n\n[[list]]\nname = \"one\"\n\n[list.sub]\nq = 3\n\n"
                      "[[list]]\nname = \"two\"\n");
}

TEST_F(config, arrays_of_several_lines) {
    const qorConfig all =
        open("l = [\n    1, # one\n    2 # two\n]\nm = [\n  'a',\n  'b', # b\n]\ni = {a = 1, b.c = 2}\n");
    EXPECT_TRUE(all.Set("l[]", 3));
    EXPECT_TRUE(all.Set("m[]", "c"));
    EXPECT_TRUE(all.Set("i.b.d", 4));
    EXPECT_TRUE(all.Remove("l[0]"));
    EXPECT_TRUE(all.Remove("m[1]"));
    EXPECT_TRUE(all.Remove("i.a"));
    EXPECT_EQ(text(), "l = [\n    2, # two\n    3\n]\nm = [\n  'a',\n  \"c\",\n]\ni = {b.c = 2, b.d = 4}\n");
}

TEST_F(config, removal) {
    const qorConfig all =
        open("a = 1 # a\n# on b\nb = 2\n[t]\nx = 1\n# inside\ny = 2\n\n# on u\n[u]\nz = 1\n[t.s]\nq = 1\n");
    EXPECT_TRUE(all.Remove("a"));
    EXPECT_TRUE(all.Remove("t"));
    EXPECT_FALSE(all.Remove("t"));
    EXPECT_TRUE(last_error().ends_with("app.toml' has no value 't'.")) << last_error();
    EXPECT_FALSE(all.Remove(""));
    EXPECT_EQ(text(), "# on b\nb = 2\n\n# on u\n[u]\nz = 1\n");
}

TEST_F(config, literals_are_single_values) {
    const qorConfig all = open("a = 1\n");
    EXPECT_TRUE(all.SetLiteral("a", " [1, {b = 0x10}]\n"));
    EXPECT_EQ(all.Get("a[1].b", 0), 16);
    for (const char* wrong : {"", "1\nb = 2", "1 # c", "1, 2", "x", "1]", "'", "\"\xff\"", "2026-13-01"})
        EXPECT_FALSE(all.SetLiteral("a", wrong)) << wrong;
    EXPECT_EQ(text(), "a = [1, {b = 0x10}]\n");
}

TEST_F(config, every_value_survives_its_text) {
    const qorConfig all = open("");
    for (const int64 each : {std::numeric_limits<int64>::min(), int64{0}, std::numeric_limits<int64>::max()}) {
        EXPECT_TRUE(all.Set("v", each));
        EXPECT_EQ(all.Find<int64>("v"), each);
    }
    EXPECT_FALSE(all.Set("v", std::numeric_limits<uint64>::max()));
    for (const double each : {0.1, -0.0, 1e300, 5e-324, 100.0, 1.0 / 3, std::numeric_limits<double>::infinity()}) {
        EXPECT_TRUE(all.Set("v", each));
        EXPECT_EQ(all.Find<double>("v"), each);
        EXPECT_EQ(all["v"].Kind(), qorConfigKind::number);
    }
    EXPECT_TRUE(all.Set("v", std::nan("")));
    EXPECT_TRUE(std::isnan(*all.Find<double>("v")));
    std::string bytes;
    for (char c = 1; c < 127; ++c)
        bytes += c;
    bytes += "\x7f\u00e4\U0001f600";
    EXPECT_TRUE(all.Set("v", std::string_view(bytes)));
    EXPECT_EQ(all.Find<std::string_view>("v"), bytes);
    EXPECT_FALSE(all.Set("v", "\xff"));
    qorConfigTime time;
    time.has_date = time.has_time = time.has_offset = true;
    time.year = 2026;
    time.month = time.day = 3;
    time.nanosecond = 1000;
    for (const int32 offset : {0, 330, -90}) {
        time.offset = offset;
        EXPECT_TRUE(all.Set("v", time)) << last_error();
        EXPECT_EQ(all.Find<qorConfigTime>("v"), time);
    }
    EXPECT_EQ(all.Find<std::string_view>("w"), std::nullopt);
}

TEST_F(config, what_has_no_place) {
    const qorConfig all = open("a = 1\nl = [1]\n[t]\n[[s]]\nx = 1\n");
    EXPECT_FALSE(all.Set("a.b", 1));
    EXPECT_TRUE(last_error().ends_with("there is a value on the way that is not a table.")) << last_error();
    EXPECT_FALSE(all.Set("t", 1));
    EXPECT_FALSE(all.Set("l[2]", 1));
    EXPECT_FALSE(all.Set("a[0]", 1));
    EXPECT_FALSE(all.Set("s[]", 1));
    EXPECT_FALSE(all.Set("", 1));
    qorConfigValue none;
    EXPECT_FALSE(m_file->SetValue("x", none));
    EXPECT_FALSE(m_file->IsModified());
}

TEST_F(config, packs_lay_trees_over_each_other) {
    open("a = 1\nb = 1\nl = [1, 2, 3]\n[t]\nx = 1\ny = 1\n[only]\nq = 1\n", "low.toml");
    const zetSmartPointer<IQORConfigFile> low = m_file;
    open("b = 2\nl = [4]\nonly = 5\n[t]\ny = 2\nz = 2\n", "high.toml");
    const zetSmartPointer<IQORConfigFile> high = m_file;
    zetSmartPointer<IQORConfigPack> pack;
    qorCreateConfigPack(pack.Out());
    EXPECT_FALSE(pack->SetLiteral("a", "1"));
    EXPECT_TRUE(pack->Add(*low));
    EXPECT_TRUE(pack->Add(*high));
    EXPECT_FALSE(pack->Add(nullptr));
    EXPECT_FALSE(pack->Add(*pack));
    EXPECT_EQ(pack->GetCount(), 2u);
    const qorConfig all(*pack);
    EXPECT_EQ(all.Get("a", 0), 1);
    EXPECT_EQ(all.Get("b", 0), 2);
    EXPECT_EQ(all["l"].Count(), 1u);
    EXPECT_EQ(all.Get("l[1]", 0), 0);
    EXPECT_EQ(all.Get("only.q", 0), 0);
    EXPECT_EQ(all["t"].Count(), 3u);
    EXPECT_EQ(list_of(all["t"].Names()), (std::vector<std::string>{"x", "y", "z"}));
    EXPECT_EQ(all.Get("t.x", 0), 1);
    EXPECT_EQ(all.Get("t.y", 0), 2);
    EXPECT_TRUE(std::string_view(all["t"]["x"].Origin().file).ends_with("low.toml"));
    EXPECT_EQ(all["t"]["x"].Origin().line, 5u);
    EXPECT_TRUE(std::string_view(all["t"]["y"].Origin().file).ends_with("high.toml"));
    EXPECT_EQ(all["t"]["y"].Origin().line, 5u);
    // A change goes to the uppermost, and is seen at once.
    EXPECT_TRUE(all.Set("a", 9));
    EXPECT_EQ(qorConfig(*low).Get("a", 0), 1);
    EXPECT_EQ(qorConfig(*high).Get("a", 0), 9);
    EXPECT_EQ(all.Get("a", 0), 9);
}

TEST(config_dummy, answers_with_defaults) {
    zetSmartPointer<IQORConfigNode> node;
    qorCreateDummyConfigNode(node.Out());
    const qorConfig all(*node);
    qorClearLastError();
    EXPECT_EQ(all.Get("a", 5), 5);
    EXPECT_EQ(all["b"]["c"].Get("[3]", "x"), "x");
    EXPECT_EQ(all.Kind(), qorConfigKind::none);
    EXPECT_EQ(all.Count(), 0u);
    EXPECT_TRUE(all.Names().IsEmpty());
    EXPECT_EQ(all.begin(), all.end());
    qorString text;
    EXPECT_EQ(qorGetLastError(text), 0u);
    EXPECT_FALSE(all.Set("a", 1));
    EXPECT_EQ(qorGetLastError(text), qorError_config_fixed);
    EXPECT_FALSE(all.Remove("a"));
    // Over a pack it changes nothing.
    zetSmartPointer<IQORConfigPack> pack;
    qorCreateConfigPack(pack.Out());
    EXPECT_TRUE(pack->Add(*node));
    EXPECT_EQ(qorConfig(*pack).Get("a", 5), 5);
    void* again = nullptr;
    ASSERT_EQ(pack->QueryInterface("IQORConfigNode", &again), 1);
    static_cast<IQORConfigNode*>(again)->Release();
}

} // namespace
