// The languages of a user who has not set a variable.
#include "catalog/user_settings.h"

#include <gtest/gtest.h>

#include <string>
#include <windows.h>

namespace {

class user_settings : public testing::Test {
protected:
    user_settings() {
        for (const char* const variable : {"LANGUAGE", "LC_ALL", "LC_MESSAGES", "LANG"})
            SetEnvironmentVariableA(variable, nullptr);
    }
};

// The same setting from another function of the system.
std::string language_of_screens() {
    wchar_t wide[LOCALE_NAME_MAX_LENGTH];
    LCIDToLocaleName(MAKELCID(GetUserDefaultUILanguage(), SORT_DEFAULT), wide, LOCALE_NAME_MAX_LENGTH, 0);
    return {wide, wide + std::wcslen(wide)}; // ASCII
}

} // namespace

TEST_F(user_settings, are_those_of_the_screens) {
    const char* const setting = qor::catalog::user_setting("LANGUAGE");
    ASSERT_NE(setting, nullptr);
    const std::string languages = setting;
    EXPECT_EQ(languages.substr(0, languages.find(':')), language_of_screens());
    EXPECT_EQ(qor::catalog::user_setting("LANG"), nullptr);
}

TEST_F(user_settings, give_way_to_a_variable) {
    SetEnvironmentVariableA("LANG", "fr_FR.UTF-8");
    EXPECT_EQ(qor::catalog::user_setting("LANGUAGE"), nullptr);
    EXPECT_STREQ(qor::catalog::user_setting("LANG"), "fr_FR.UTF-8");
    SetEnvironmentVariableA("LANGUAGE", "de");
    EXPECT_STREQ(qor::catalog::user_setting("LANGUAGE"), "de");
}
