// Accounts from the name service switch: files, network directories and all other sources that the host has set up.
#include "error/error.h"
#include "module/module.h"
#include "user/account.h"

#include <cerrno>
#include <grp.h>
#include <pwd.h>
#include <string_view>
#include <unistd.h>

namespace {

// Limits the size of an entry: a faulty service that asks for more room each time would otherwise use up all memory.
constexpr std::size_t max_entry_size = std::size_t{1} << 28;

// The manual lists these codes, and 0, for "there is no such entry".
bool means_none(int code) noexcept {
    return code == 0 || code == ENOENT || code == ESRCH || code == EBADF || code == EPERM;
}

// Reads one entry with one of the C library's functions, into a buffer that grows until the entry fits. Returns the
// error code; 0 with found == false means that there is no such entry.
template <class ENTRY, class KEY>
int read_entry(int (*read)(KEY, ENTRY*, char*, std::size_t, ENTRY**), KEY key, ENTRY& entry, std::vector<char>& buffer,
               bool& found) {
    ENTRY* result = nullptr;
    int code = ERANGE;
    for (std::size_t size = 1024; code == ERANGE && size <= max_entry_size; size *= 2) {
        buffer.resize(size);
        code = read(key, &entry, buffer.data(), buffer.size(), &result);
        if (code < 0)
            code = errno; // some libraries that replace the C library's report errors this way, too
    }
    found = result != nullptr;
    return found || means_none(code) ? 0 : code;
}

// Looks up a single group by its number: the list of all groups may be long, and some services refuse to give it out.
bool group_name(gid_t number, std::string& out) {
    group entry;
    std::vector<char> buffer;
    bool found;
    if (const int code = read_entry(getgrgid_r, number, entry, buffer, found)) {
        qor::error::set_with_reason(qorError_system, "getgrgid_r", code);
        return false;
    }
    out = found ? entry.gr_name : std::to_string(number);
    return true;
}

bool read_groups(const char* name, gid_t first, std::vector<std::string>& out) {
    std::vector<gid_t> numbers(32);
    for (;;) {
        int count = static_cast<int>(numbers.size());
        const bool complete = getgrouplist(name, first, numbers.data(), &count) >= 0;
        if (!complete && count <= static_cast<int>(numbers.size()))
            count = static_cast<int>(numbers.size()) * 2; // not every service reports the number of groups
        numbers.resize(static_cast<std::size_t>(count));
        if (complete)
            break;
    }
    for (const gid_t number : numbers)
        if (!group_name(number, out.emplace_back()))
            return false;
    return true;
}

// Only public data decides, so that every caller gets the same answer. A locked password or an expired account is
// visible to root only; the user learns about it at log-on.
bool may_log_in(std::string_view shell) noexcept {
    const std::string_view program = shell.substr(shell.rfind('/') + 1);
    return program != "nologin" && program != "false";
}

bool take(const passwd& entry, qor::user::account& out) {
    out.name = entry.pw_name;
    // The name is the first of the comma-separated fields. An ampersand is an ordinary character: department names
    // contain it.
    const std::string_view gecos = entry.pw_gecos != nullptr ? entry.pw_gecos : "";
    out.description = gecos.substr(0, gecos.find(','));
    out.is_super_user = entry.pw_uid == 0;
    if (!may_log_in(entry.pw_shell != nullptr ? entry.pw_shell : ""))
        out.level = qorAuthLevel_none;
    else
        out.level = out.is_super_user ? qorAuthLevel_administrator : qorAuthLevel_user;
    return read_groups(entry.pw_name, entry.pw_gid, out.groups);
}

// Reads the entry of a user. The texts of `entry` lie in `buffer`.
bool read_user(uid_t number, passwd& entry, std::vector<char>& buffer, bool& found) {
    if (const int code = read_entry(getpwuid_r, number, entry, buffer, found)) {
        qor::error::set_with_reason(qorError_system, "getpwuid_r", code);
        return false;
    }
    return true;
}

} // namespace

bool qor::user::find_account(const char* name, account& out) {
    passwd entry;
    std::vector<char> buffer;
    bool found;
    if (const int code = read_entry(getpwnam_r, name, entry, buffer, found)) {
        error::set_with_reason(qorError_system, "getpwnam_r", code);
        return false;
    }
    if (!found) {
        error::set(qorError_unknown_user, {name});
        return false;
    }
    return take(entry, out);
}

bool qor::user::current_account(account_reader& out) {
    out = [user = geteuid(), group = getegid()](account& found) {
        passwd entry;
        std::vector<char> buffer;
        bool has_account;
        if (!read_user(user, entry, buffer, has_account))
            return false;
        if (has_account)
            return take(entry, found);
        // In a container, a process may have a user id without an account. Nobody can log in with it.
        found.name = std::to_string(user);
        found.is_super_user = user == 0;
        found.level = qorAuthLevel_none;
        return read_groups(found.name.c_str(), group, found.groups);
    };
    return true;
}

bool qor::user::current_name(std::string& out) {
    passwd entry;
    std::vector<char> buffer;
    bool found;
    if (!read_user(geteuid(), entry, buffer, found))
        return false;
    out = found ? entry.pw_name : std::to_string(geteuid());
    return true;
}

bool qor::user::is_super_user() noexcept { return geteuid() == 0; }

bool qor::user::log_on(const char* name, const char* password, account& out) {
    void* made = nullptr;
    if (!module::create_object("qor-pam", "IQORAuthenticator", "pam", &made))
        return false;
    zetSmartPointer<IQORAuthenticator> authenticator;
    authenticator.AttachNew(static_cast<IQORAuthenticator*>(made));
    qorString account_name;
    return authenticator->Authenticate(name, password, account_name) && find_account(account_name, out);
}
