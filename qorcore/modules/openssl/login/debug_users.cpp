// Accounts of debug control: reads, changes and writes their file.
#include "debug_users.h"

#include "accounts.h"
#include "common/guarded.h"
#include "known_hosts.h"
#include "private_file.h"
#include "server_key.h"

#include <algorithm>

namespace {

constexpr char source[] = "qorcore/modules/openssl/login/debug_users";

using qor::control::account_list;
using qor::control::find_accounts;
using qor::modules::guarded;

bool is_usable(const char* name, const char* password) {
    if (!qor::control::is_user_name(name)) {
        qorSetLastError(qorError_bad_user_name, name);
        return false;
    }
    if (*password == '\0') {
        qorSetLastError(qorError_empty_password);
        return false;
    }
    return qor::crypto::is_password(password);
}

bool no_such_user(const std::string& path, const char* name) {
    qorSetLastError(qorError_no_such_user, name, path.c_str());
    return false;
}

// Reads the accounts, lets `edit` change them and writes them; the lock keeps other writers out meanwhile. The file may
// be missing if `may_be_missing`.
template <class EDIT>
bool change(const std::string& path, bool may_be_missing, EDIT edit) {
    bool is_missing = false;
    account_list accounts;
    std::string reason;
    // If the file is required, check it first: without it, create nothing, not even the lock file.
    if (!may_be_missing && !qor::control::read_accounts(path, accounts))
        return false;
    const qor::control::private_file_lock lock(path);
    if (lock.is_held(reason)) {
        if (!qor::control::read_accounts(path, accounts, may_be_missing ? &is_missing : nullptr) || !edit(accounts))
            return false;
        if (qor::control::write_private_file(path, accounts.format(), reason))
            return true;
    }
    qorSetLastError(qorError_cannot_write_file, path.c_str(), reason.c_str());
    return false;
}

class debug_users final : public qor::object<IQORDebugUsers> {
public:
    debug_users() noexcept : object("qorcore.openssl.debug_users", "IQORDebugUsers") {}

    bool Add(const char* file, const char* name, const char* password) noexcept override {
        return guarded([&] {
            std::string path;
            qor::crypto::verifier made;
            qor::crypto::key_pointer key;
            if (!is_usable(name, password) || !find_accounts(file, path) || !qor::crypto::make_verifier(password, made))
                return false;
            return change(path, true, [&](account_list& accounts) {
                if (accounts.find(name) != nullptr) {
                    qorSetLastError(qorError_user_exists, name);
                    return false;
                }
                accounts.set(name, made);
                return qor::control::open_server_key(path, key);
            });
        });
    }

    bool Change(const char* file, const char* name, const char* password) noexcept override {
        return guarded([&] {
            std::string path;
            qor::crypto::verifier made;
            if (!is_usable(name, password) || !find_accounts(file, path) || !qor::crypto::make_verifier(password, made))
                return false;
            return change(path, false, [&](account_list& accounts) {
                if (accounts.find(name) == nullptr)
                    return no_such_user(path, name);
                accounts.set(name, made);
                return true;
            });
        });
    }

    bool Remove(const char* file, const char* name) noexcept override {
        return guarded([&] {
            std::string path;
            return find_accounts(file, path) && change(path, false, [&](account_list& accounts) {
                       return accounts.remove(name) || no_such_user(path, name);
                   });
        });
    }

    bool GetNames(const char* file, qorStringArray& names) noexcept override {
        return guarded([&] {
            std::string path;
            account_list accounts;
            if (!find_accounts(file, path) || !qor::control::read_accounts(path, accounts))
                return false;
            names.Empty();
            for (const std::string& name : accounts.names())
                names.Append(name.c_str());
            return true;
        });
    }

    bool GetKeyFingerprint(const char* file, qorString& fingerprint) noexcept override {
        return guarded([&] {
            std::string path;
            qor::crypto::key_pointer key;
            if (!find_accounts(file, path) || !qor::control::read_server_key(path, key))
                return false;
            fingerprint = qor::control::text_of(qor::control::fingerprint_of(key.get())).c_str();
            return true;
        });
    }

    bool Trust(const char* host, uint16 port, const char* fingerprint) noexcept override {
        return guarded([&] {
            std::string text = fingerprint;
            std::transform(text.begin(), text.end(), text.begin(),
                           [](char c) { return c >= 'A' && c <= 'F' ? c + 32 : c; });
            const auto key = qor::control::read_fingerprint(text);
            if (!key) {
                qorSetLastError(qorError_bad_fingerprint, fingerprint);
                return false;
            }
            return qor::control::known_hosts({}).remember(host, port, *key);
        });
    }
};

} // namespace

bool create_debug_users(IQORDebugUsers** out) noexcept {
    return qor::modules::make<debug_users>(source, __LINE__, out);
}
