// Inside the module qor-openssl: who may log in to debug control. A file of lines "name:verifier" (verifier.h); empty
// lines and those that begin with '#' are left as they are. Beside it, in "<file>.key", lies the key that the listener
// shows.
#pragma once

#include "password/verifier.h"
#include "support/openssl_support.h"

#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace qor::control {

inline constexpr std::size_t longest_user_name = 255; // bytes

// 1 to 255 bytes, without a colon and control characters; no '#' in front and no blank at either end.
bool is_user_name(std::string_view name) noexcept;

// The text of the file.
class account_list {
public:
    // What is wrong with a line.
    enum class fault { none, no_colon, bad_name, bad_verifier, twice };

    // False: `line` (from 1 on) and `what` tell the first fault, and the list is empty.
    bool parse(std::string_view text, unsigned& line, fault& what);

    // As it is to be written: every line that was there before is there still.
    std::string format() const;

    const crypto::verifier* find(std::string_view name) const noexcept;
    void set(std::string_view name,
             const crypto::verifier& value); // in place of the one that is there, else as the last line
    bool remove(std::string_view name);
    std::vector<std::string> names() const;

    // The iterations and the length of the salt, which a stranger sees of an account before the login.
    using look = std::pair<uint32, std::size_t>;

    // How many accounts look like that.
    std::map<look, unsigned> looks() const;

private:
    struct entry {
        std::string line; // a comment, where there is no name
        std::string name;
        crypto::verifier value;
    };

    fault parse_account(std::string_view all, entry& made);

    std::vector<entry> m_entries;
    std::map<std::string, std::size_t, std::less<>> m_places; // of the names, in the entries
};

// The accounts of a listener. Not thread-safe. Throws std::bad_alloc.
class accounts {
public:
    // Null: the file in the framework's configuration folder. False: there is none, it cannot be used, or others may
    // read it; the last error says so.
    bool open(const char* path);

    // The listener's key, which is made where there is none. Call it after open. False: the last error says why.
    bool open_key(crypto::key_pointer& key);

    // What there is to know of a user; the file is looked at anew. A user that is not there gets a verifier that nobody
    // fits, the same one each time, and looks as one of the accounts does, each look as often among such users as among
    // the accounts. False: the last error says why.
    bool look_up(std::string_view name, crypto::verifier& out, bool& is_known);

private:
    bool load();
    bool invent(std::string_view name, crypto::verifier& out) const;

    std::string m_path;
    account_list m_accounts;
    std::map<account_list::look, unsigned> m_looks;
    std::string m_secret; // what is invented is made of it
};

// The file of a path that somebody gave; null: the one in the framework's configuration folder. False: the last error
// says why.
bool find_accounts(const char* path, std::string& out);

// Reads accounts from a file. False: the last error says why. A missing file is one without accounts, where
// `is_missing` takes it.
bool read_accounts(const std::string& path, account_list& out, bool* is_missing = nullptr);

} // namespace qor::control
