#include "catalog/catalog.h"
#include "qor/qor.h"
#include "support/platform.h"

#include <gtest/gtest.h>

namespace {

using qor::catalog::expand;

// Captures the output of a stream.
class captured {
public:
    captured() : m_stream(std::tmpfile()) {}
    captured(const captured&) = delete;
    captured& operator=(const captured&) = delete;
    ~captured() { std::fclose(m_stream); }
    std::FILE* stream() const { return m_stream; }
    std::string text() const {
        std::rewind(m_stream);
        std::string result;
        for (int byte; (byte = std::getc(m_stream)) != EOF;)
            result += static_cast<char>(byte);
        return result;
    }

private:
    std::FILE* m_stream;
};

// English, whatever the user's language; each test may choose another one.
class catalog : public testing::Test {
protected:
    catalog() { choose("en"); }
    ~catalog() override { choose("en"); }

    static void choose(const char* list) {
        std::string why;
        ASSERT_TRUE(qor::catalog::set_languages(list, why)) << why;
    }
};

const char* const ten[] = {"a", "b", "c", "d", "e", "f", "g", "h", "i", "j"};

std::vector<std::string> active() {
    qorStringArray languages;
    languages.Append("what was in it before");
    qorGetActiveCatalogLanguages(languages);
    std::vector<std::string> result;
    for (uint32 i = 0; i < languages.GetCount(); ++i)
        result.emplace_back(languages[i]);
    EXPECT_EQ(result, qor::catalog::active_languages());
    return result;
}

using names = std::vector<std::string>;

} // namespace

TEST(expand, puts_each_insert_in_its_places) {
    EXPECT_EQ(expand("{1}{2}{3}{4}{5}{6}{7}{8}{9}{10}", ten), "abcdefghij");
    EXPECT_EQ(expand("<{10}> {1}-{1}", ten), "<j> a-a");
    EXPECT_EQ(expand("no insert", ten), "no insert");
    EXPECT_EQ(expand("", ten), "");
}

TEST(expand, leaves_other_braces_alone) {
    for (const char* text : {"{0}", "{11}", "{100}", "{x}", "{}", "{", "}", "{ 1}", "{1 }", "{01}", "{-1}", "{1"})
        EXPECT_EQ(expand(text, ten), text);
    EXPECT_EQ(expand("{{1}}", ten), "{a}");
    EXPECT_EQ(expand("{10", ten), "{10");
}

TEST(expand, what_is_not_given_is_empty) {
    EXPECT_EQ(expand("[{1}][{10}]", nullptr), "[][]");
    const char* const second_only[10] = {nullptr, "b"};
    EXPECT_EQ(expand("[{1}][{2}][{3}]", second_only), "[][b][]");
}

TEST(expand, does_not_look_at_inserts) {
    const char* const inserts[10] = {"{2}{1}", "%s\\n{"};
    EXPECT_EQ(expand("{1}|{2}", inserts), "{2}{1}|%s\\n{");
}

TEST_F(catalog, has_the_errors_and_the_texts_of_the_framework) {
    EXPECT_EQ(qor::catalog::find("qorcore", qorError_access_denied), "Access was denied.");
    EXPECT_EQ(qor::catalog::find("qorcore", 1020), "{1}: {2}");
    EXPECT_EQ(qor::catalog::find("qorcore", 999), "");
    EXPECT_EQ(qor::catalog::find("nothing", 1), "");
}

TEST_F(catalog, finds_what_comes_with_the_library) {
    choose("de");
    EXPECT_EQ(qor::catalog::find("qortool", 65), "Befehle:");
    EXPECT_EQ(qor::catalog::find_in("qortool", 65, "fr_CA"), "Commandes :");
    EXPECT_EQ(qor::catalog::find_in("qortool", 65, "en"), "Commands:");
    EXPECT_EQ(qor::catalog::find_in("qortool", 65, "../x"), "Commands:");
}

TEST_F(catalog, active_languages_are_those_that_are_there) {
    EXPECT_EQ(active(), names{"en"});
    choose("de_AT:xx:fr:en:it");
    EXPECT_EQ(active(), (names{"de", "fr", "en"}));
}

TEST_F(catalog, a_refused_list_changes_nothing) {
    choose("fr");
    std::string why;
    EXPECT_FALSE(qor::catalog::set_languages("de:../x", why));
    EXPECT_EQ(active(), (names{"fr", "en"}));
    choose("en");
    EXPECT_FALSE(qor::catalog::set_languages("de:../x", why));
    EXPECT_EQ(why, "'../x' is not a language name");
    EXPECT_FALSE(qor::catalog::set_languages("::", why));
    EXPECT_EQ(why, "the list is empty");
}

TEST_F(catalog, strings_load_messages_as_they_stand) {
    qorString text = "before";
    EXPECT_TRUE(text.LoadString("qorcore", 1020));
    EXPECT_STREQ(text, "{1}: {2}");
    EXPECT_FALSE(text.LoadString("qorcore", 999));
    EXPECT_STREQ(text, "");
    EXPECT_FALSE(text.LoadString(nullptr, 1));
    EXPECT_TRUE(text.LoadStringEx("qortool", 65, "de_AT"));
    EXPECT_STREQ(text, "Befehle:");
    EXPECT_TRUE(text.LoadStringEx("qortool", 65, nullptr));
    EXPECT_STREQ(text, "Commands:");
    EXPECT_FALSE(text.LoadStringEx("qortool", 4, "de"));
    EXPECT_STREQ(text, "");
}

TEST_F(catalog, strings_format_messages) {
    qorString text;
    EXPECT_TRUE(text.Format("qorcore", 1020, "who", "what"));
    EXPECT_STREQ(text, "who: what");
    EXPECT_TRUE(text.Format("qorcore", 1020));
    EXPECT_STREQ(text, ": ");
    EXPECT_FALSE(text.Format("qorcore", 999, "lost"));
    EXPECT_STREQ(text, "");
    EXPECT_TRUE(text.FormatEx("qortool", 16, "fr", ten));
    EXPECT_STREQ(text, "Nom :               a");
    // An insert may point into the string itself.
    text = "me";
    EXPECT_TRUE(text.Format("qorcore", 1020, text, text));
    EXPECT_STREQ(text, "me: me");
}

TEST_F(catalog, strings_format_texts) {
    qorString text = "{2} before {1}";
    text.FormatString(text, "one", "two");
    EXPECT_STREQ(text, "two before one");
    text.FormatString("{10}", "1", "2", "3", "4", "5", "6", "7", "8", "9", "ten");
    EXPECT_STREQ(text, "ten");
    text.FormatString(nullptr);
    EXPECT_STREQ(text, "");
}

TEST_F(catalog, prints_messages_as_lines) {
    const captured out;
    EXPECT_TRUE(::fputmsg(out.stream(), "qortool", 65, true));
    EXPECT_TRUE(::fputmsg(out.stream(), "qorcore", 1020, "who", "what"));
    EXPECT_TRUE(::fputmsg(out.stream(), "qortool", 65, false));
    EXPECT_EQ(out.text(), "Commands:\nwho: what\nCommands:");
}

TEST_F(catalog, a_missing_message_loses_nothing) {
    const captured out;
    EXPECT_FALSE(::fputmsg(out.stream(), "qortool", 4, true));
    EXPECT_FALSE(::fputmsg(out.stream(), "nothing", 12, "first", nullptr, "third"));
    EXPECT_FALSE(::fputmsg(out.stream(), nullptr, 1, false));
    EXPECT_EQ(out.text(), "qortool:4\nnothing:12 first third\n:1");
}

TEST_F(catalog, a_stream_that_takes_nothing_is_told) {
    QOR_NEEDS_FULL_DISK();
    std::FILE* const full = std::fopen(qor::test::full_disk, "w");
    ASSERT_NE(full, nullptr);
    std::setvbuf(full, nullptr, _IONBF, 0);
    EXPECT_FALSE(::fputmsg(full, "qortool", 65, true));
    std::fclose(full);
}
