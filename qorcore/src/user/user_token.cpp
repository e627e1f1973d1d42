// Tokens: accounts as objects.
#include "error/error.h"
#include "memory/allocator.h"
#include "user/account.h"

#include <utility>

namespace {

constexpr char source[] = "qorcore/src/user/user_token";

class user_token final : public qor::object<IQORUserToken> {
public:
    explicit user_token(qor::user::account&& account) noexcept
        : object("qorcore.user_token", "IQORUserToken"), m_account(std::move(account)) {}

    bool IsSuperUser() noexcept override { return m_account.is_super_user; }
    void GetUserName(qorString& out) noexcept override { out = m_account.name.c_str(); }
    void GetDescription(qorString& out) noexcept override { out = m_account.description.c_str(); }
    void GetGroups(qorStringArray& out) noexcept override {
        out.Empty();
        for (const std::string& group : m_account.groups)
            out.Append(group.c_str());
    }
    int32 GetAuthLevel() noexcept override { return m_account.level; }

private:
    const qor::user::account m_account;
};

// Makes a token of the account that `find` looks up.
template <class FIND>
bool make_token(IQORUserToken** out, FIND find) noexcept {
    qor::user::account account;
    if (!find(account))
        return false;
    return qor::memory::make<user_token>(source, __LINE__, out, std::move(account));
}

const char* text_of(const char* text) noexcept { return text != nullptr ? text : ""; }

} // namespace

bool qor::glue::qorGetCurrentUserName(qorString& out) noexcept {
    std::string name;
    if (!user::current_name(name))
        return false;
    out = name.c_str();
    return true;
}

bool qor::glue::qorIsSuperUser() noexcept { return user::is_super_user(); }

bool qor::glue::qorGetUserToken(const char* name, IQORUserToken** out) noexcept {
    return make_token(out, [=](user::account& account) { return user::find_account(text_of(name), account); });
}

bool qor::glue::qorGetCurrentUserToken(IQORUserToken** out) noexcept {
    return make_token(out, [](user::account& account) { return user::current_account(account); });
}

bool qor::glue::qorLogonUser(const char* name, const char* password, IQORUserToken** out) noexcept {
    return make_token(out, [=](user::account& account) {
        if (!user::log_on(text_of(name), text_of(password), account))
            return false;
        if (account.level < 0) {
            error::set(qorError_logon_denied, {account.name.c_str()});
            return false;
        }
        return true;
    });
}
