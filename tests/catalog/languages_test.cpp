#include "catalog/languages.h"

#include <gtest/gtest.h>

#include <map>

namespace {

using qor::catalog::canonical_language;
using names = std::vector<std::string>;

// A fake environment; variables that it does not contain are unset.
std::map<std::string, std::string> environment;

const char* value(const char* variable) {
    const auto found = environment.find(variable);
    return found != environment.end() ? found->second.c_str() : nullptr;
}

names of_environment(const std::map<std::string, std::string>& variables) {
    environment = variables;
    return qor::catalog::languages_of_environment(&value);
}

names parsed(const char* list) {
    names languages = {"untouched"};
    std::string_view refused;
    EXPECT_TRUE(qor::catalog::parse_languages(list, languages, refused)) << list;
    EXPECT_EQ(refused, "");
    return languages;
}

std::string refused_part(const char* list) {
    names languages = {"untouched"};
    std::string_view refused = "not set";
    EXPECT_FALSE(qor::catalog::parse_languages(list, languages, refused)) << list;
    EXPECT_EQ(languages, names{"untouched"});
    return std::string(refused);
}

} // namespace

TEST(canonical_language, gives_one_spelling) {
    EXPECT_EQ(canonical_language("de"), "de");
    EXPECT_EQ(canonical_language("DE"), "de");
    EXPECT_EQ(canonical_language("de-at"), "de_AT");
    EXPECT_EQ(canonical_language("De_aT"), "de_AT");
    EXPECT_EQ(canonical_language("zh-Hant-tw"), "zh_Hant_TW");
    EXPECT_EQ(canonical_language("es_419"), "es_419");
    EXPECT_EQ(canonical_language("gsw"), "gsw");
    EXPECT_EQ(canonical_language("abcdefgh"), "abcdefgh");
}

TEST(canonical_language, knows_english_by_all_its_names) {
    for (const char* name : {"en", "EN", "en_GB", "en-us", "en_US_POSIX", "C", "POSIX"})
        EXPECT_EQ(canonical_language(name), "en") << name;
    // Names that only begin with a known one.
    EXPECT_EQ(canonical_language("enm"), "enm");
}

TEST(canonical_language, refuses_what_cannot_be_a_name) {
    for (const char* name : {"",       "d",     "abcdefghi", "d3",          "de_",   "de-",    "_de",     "de__AT",
                             "de_-AT", "de AT", "de.UTF-8",  "de@euro",     "de/AT", "../de",  "de_../x", "/etc/passwd",
                             "c:de",   "de\\x", "d\xc3\xa9", "de_\xc3\xa9", "de\n",  "posix2", "c"})
        EXPECT_EQ(canonical_language(name), "") << name;
    EXPECT_EQ(canonical_language(std::string("de") + std::string(1, '\0')), "");
    EXPECT_EQ(canonical_language("de_" + std::string(37, 'x')), "de_" + std::string(37, 'x'));
    EXPECT_EQ(canonical_language("de_" + std::string(38, 'x')), "");
}

// Whatever the input, the result is safe as part of a file name.
TEST(canonical_language, never_lets_a_path_through) {
    for (int first = 0; first < 256; ++first)
        for (int second = 0; second < 256; ++second) {
            const std::string name = {'d', 'e', static_cast<char>(first), static_cast<char>(second)};
            for (const char c : canonical_language(name))
                EXPECT_TRUE((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_')
                    << first << ' ' << second;
        }
}

TEST(with_fallbacks, drops_the_last_part_again_and_again) {
    EXPECT_EQ(qor::catalog::with_fallbacks("zh_Hant_TW"), (names{"zh_Hant_TW", "zh_Hant", "zh"}));
    EXPECT_EQ(qor::catalog::with_fallbacks("de"), names{"de"});
    EXPECT_EQ(qor::catalog::with_fallbacks("en_GB"), names{});
    EXPECT_EQ(qor::catalog::with_fallbacks("no/name"), names{});
}

TEST(parse_languages, takes_both_separators_in_the_order_given) {
    EXPECT_EQ(parsed("de:fr"), (names{"de", "fr"}));
    EXPECT_EQ(parsed("fr,de"), (names{"fr", "de"}));
    EXPECT_EQ(parsed("de_AT:fr,pt-br"), (names{"de_AT", "de", "fr", "pt_BR", "pt"}));
    EXPECT_EQ(parsed(":de::fr,"), (names{"de", "fr"}));
}

TEST(parse_languages, names_each_language_once) {
    EXPECT_EQ(parsed("de:de_AT:DE:de_CH"), (names{"de", "de_AT", "de_CH"}));
}

TEST(parse_languages, ends_with_english) {
    EXPECT_EQ(parsed("en"), names{});
    EXPECT_EQ(parsed("C"), names{});
    EXPECT_EQ(parsed("de:en_GB:fr"), names{"de"});
}

TEST(parse_languages, refuses_what_is_no_name) {
    EXPECT_EQ(refused_part("de:../../etc/passwd:fr"), "../../etc/passwd");
    EXPECT_EQ(refused_part("german language"), "german language");
    EXPECT_EQ(refused_part("de.UTF-8"), "de.UTF-8");
    // Even at a place that is no longer searched.
    EXPECT_EQ(refused_part("en:x"), "x");
}

TEST(parse_languages, refuses_a_list_of_nothing) {
    EXPECT_EQ(refused_part(""), "");
    EXPECT_EQ(refused_part(":,:"), "");
}

TEST(languages_of_environment, nothing_is_english) { EXPECT_EQ(of_environment({}), names{}); }

TEST(languages_of_environment, the_first_variable_that_is_set_decides) {
    EXPECT_EQ(of_environment({{"LANG", "de_DE.UTF-8"}}), (names{"de_DE", "de"}));
    EXPECT_EQ(of_environment({{"LANG", "de_DE.UTF-8"}, {"LC_MESSAGES", "fr_FR"}}), (names{"fr_FR", "fr"}));
    EXPECT_EQ(of_environment({{"LANG", "de"}, {"LC_MESSAGES", "fr"}, {"LC_ALL", "it"}}), names{"it"});
    EXPECT_EQ(of_environment({{"LANG", "de"}, {"LC_ALL", "it"}, {"LANGUAGE", "nl:pt_BR"}}),
              (names{"nl", "pt_BR", "pt"}));
    EXPECT_EQ(of_environment({{"LANGUAGE", "nl"}}), names{"nl"});
}

TEST(languages_of_environment, the_plain_locale_is_english_whatever_else_is_set) {
    for (const char* plain : {"C", "POSIX"})
        for (const char* variable : {"LC_ALL", "LC_MESSAGES", "LANG"})
            EXPECT_EQ(of_environment({{"LANGUAGE", "de"}, {variable, plain}}), names{}) << variable;
    // The variable must be the one that decides.
    EXPECT_EQ(of_environment({{"LANGUAGE", "de"}, {"LC_ALL", "fr"}, {"LANG", "C"}}), names{"de"});
    // A name with a character set does not count as "C".
    EXPECT_EQ(of_environment({{"LANGUAGE", "de"}, {"LANG", "C.UTF-8"}}), names{"de"});
    EXPECT_EQ(of_environment({{"LANG", "C.UTF-8"}}), names{});
}

TEST(languages_of_environment, drops_character_set_and_variant) {
    EXPECT_EQ(of_environment({{"LANG", "de_AT.UTF-8@euro"}}), (names{"de_AT", "de"}));
    EXPECT_EQ(of_environment({{"LANG", "sr@latin"}}), names{"sr"});
}

TEST(languages_of_environment, skips_what_is_no_name) {
    EXPECT_EQ(of_environment({{"LANGUAGE", "../x::de_AT:/etc/passwd:x:fr"}}), (names{"de_AT", "de", "fr"}));
    EXPECT_EQ(of_environment({{"LANG", "what/ever"}}), names{});
}

TEST(languages_of_environment, ends_with_english) {
    EXPECT_EQ(of_environment({{"LANGUAGE", "de:en:fr"}, {"LANG", "it"}}), names{"de"});
    EXPECT_EQ(of_environment({{"LANG", "en_US.UTF-8"}}), names{});
}
