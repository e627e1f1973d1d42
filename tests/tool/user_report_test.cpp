// The report on invented accounts.
#include "actions/user_report.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace {

class invented_token final : public qor::object<IQORUserToken> {
public:
    invented_token(const char* description, int32 level, std::vector<const char*> groups)
        : object("tests.invented_token", "IQORUserToken"), m_description(description), m_level(level),
          m_groups(std::move(groups)) {}

    bool IsSuperUser() noexcept override { return m_level > 1; }
    void GetUserName(qorString& out) noexcept override { out = "a%sb"; }
    void GetDescription(qorString& out) noexcept override { out = m_description; }
    void GetGroups(qorStringArray& out) noexcept override {
        out.Empty();
        for (const char* group : m_groups)
            out.Append(group);
    }
    int32 GetAuthLevel() noexcept override { return m_level; }

private:
    const char* m_description;
    int32 m_level;
    std::vector<const char*> m_groups;
};

std::string report(const char* description, int32 level, std::vector<const char*> groups) {
    zetSmartPointer<IQORUserToken> token;
    token.AttachNew(new (__FILE__, __LINE__) invented_token(description, level, std::move(groups)));
    testing::internal::CaptureStdout();
    print_user_report(token);
    return testing::internal::GetCapturedStdout();
}

} // namespace

TEST(user_report, no_groups_no_description_and_a_level_below_zero) {
    EXPECT_EQ(report("", -1, {}), "Username            = [a%sb]\n"
                                  "UserDescription     = []\n"
                                  "Is Super User       = [false]\n"
                                  "Auth Level          = [-1]\n"
                                  "Groups              = (no groups found)\n");
}

TEST(user_report, one_group) {
    EXPECT_EQ(report("Somebody", 1, {"users"}), "Username            = [a%sb]\n"
                                                "UserDescription     = [Somebody]\n"
                                                "Is Super User       = [false]\n"
                                                "Auth Level          = [1]\n"
                                                "Groups              = [users]\n");
}

TEST(user_report, three_groups_in_their_order) {
    EXPECT_EQ(report("%d", 2147483647, {"b", "B", "a"}), "Username            = [a%sb]\n"
                                                         "UserDescription     = [%d]\n"
                                                         "Is Super User       = [true]\n"
                                                         "Auth Level          = [2147483647]\n"
                                                         "Groups              = [B]\n"
                                                         "                    = [a]\n"
                                                         "                    = [b]\n");
}
