// Tokens: accounts as objects.
#include "error/error.h"
#include "memory/allocator.h"
#include "user/account.h"

#include <mutex>
#include <utility>

namespace {

using qor::user::account;
using qor::user::account_reader;

// Never destroyed, because other threads may still read it at the end of the process.
const account& account_of_nobody() {
    auto* const made = new account;
    made->level = qorAuthLevel_none;
    return *made;
}

constexpr char source[] = "qorcore/src/user/user_token";

class user_token final : public qor::object<IQORUserToken> {
public:
    explicit user_token(account&& account) noexcept
        : object("qorcore.user_token", "IQORUserToken"), m_is_super_user(account.is_super_user),
          m_account(std::move(account)) {}

    // The account is read when more of it is wanted than this right.
    user_token(bool is_super_user, account_reader&& read) noexcept
        : object("qorcore.user_token", "IQORUserToken"), m_is_super_user(is_super_user), m_read(std::move(read)) {}

    bool IsSuperUser() noexcept override { return m_is_super_user; }
    void GetUserName(qorString& out) noexcept override { out = whole().name.c_str(); }
    void GetDescription(qorString& out) noexcept override { out = whole().description.c_str(); }
    void GetGroups(qorStringArray& out) noexcept override {
        out.Empty();
        for (const std::string& group : whole().groups)
            out.Append(group.c_str());
    }
    int32 GetAuthLevel() noexcept override { return whole().level; }

private:
    // After a failure, the next call tries again.
    const account& whole() noexcept {
        static const account& unknown = account_of_nobody();
        const std::lock_guard hold(m_lock);
        account found;
        if (m_read && !m_read(found))
            return unknown;
        if (m_read) {
            m_account = std::move(found);
            m_read = nullptr;
        }
        return m_account;
    }

    const bool m_is_super_user;
    std::mutex m_lock;
    account_reader m_read; // empty: m_account does not change any more
    account m_account;
};

// Makes a token of the account that `find` looks up.
template <class FIND>
bool make_token(IQORUserToken** out, FIND find) noexcept {
    account found;
    if (!find(found))
        return false;
    return qor::memory::make<user_token>(source, __LINE__, out, std::move(found));
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
    return make_token(out, [=](account& found) { return user::find_account(text_of(name), found); });
}

bool qor::glue::qorGetCurrentUserToken(IQORUserToken** out) noexcept {
    account_reader read;
    return user::current_account(read) &&
           memory::make<user_token>(source, __LINE__, out, user::is_super_user(), std::move(read));
}

bool qor::glue::qorLogonUser(const char* name, const char* password, IQORUserToken** out) noexcept {
    return make_token(out, [=](account& found) {
        if (!user::log_on(text_of(name), text_of(password), found))
            return false;
        if (found.level < 0) {
            error::set(qorError_logon_denied, {found.name.c_str()});
            return false;
        }
        return true;
    });
}
