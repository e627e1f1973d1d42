// Inside the module qor-openssl: the accounts that may log in to debug control. The file has lines "name:verifier"
// (verifier.h); empty lines and lines that begin with '#' are kept. The key that the listener shows lies beside it, in
// "<file>.key".
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

// 1 to 255 bytes, without colons and control characters, not beginning with '#', and without a blank at either end.
bool is_user_name(std::string_view name) noexcept;

// The content of the file.
class account_list {
public:
    // The error in a line.
    enum class fault { none, no_colon, bad_name, bad_verifier, twice };

    // On false, `line` (counted from 1) and `what` describe the first error, and the list is empty.
    bool parse(std::string_view text, unsigned& line, fault& what);

    // Returns the new content of the file. Unchanged lines are preserved.
    std::string format() const;

    const crypto::verifier* find(std::string_view name) const noexcept;
    void set(std::string_view name,
             const crypto::verifier& value); // replaces the account's entry, or appends a line
    bool remove(std::string_view name);
    std::vector<std::string> names() const;

    // The iterations and the length of the salt: everything that a client sees of an account before the login.
    using look = std::pair<uint32, std::size_t>;

    // Returns the number of accounts with each look.
    std::map<look, unsigned> looks() const;

private:
    struct entry {
        std::string line; // a comment, if there is no name
        std::string name;
        crypto::verifier value;
    };

    fault parse_account(std::string_view all, entry& made);

    std::vector<entry> m_entries;
    std::map<std::string, std::size_t, std::less<>> m_places; // maps names to indexes of m_entries
};

// The accounts of a listener. Not thread-safe. Throws std::bad_alloc.
class accounts {
public:
    // Opens the file; null means the file in the framework's configuration folder. Returns false if there is none, if
    // it cannot be used, or if others may read it; the last error gives the reason.
    bool open(const char* path);

    // Opens the listener's key and makes one if there is none. Call this after open. On false, the last error gives the
    // reason.
    bool open_key(crypto::key_pointer& key);

    // Reads the file again and looks up a user. An unknown user gets a verifier that no password matches, the same one
    // each time, with the look of an account; each look is as frequent among unknown users as among the accounts. On
    // false, the last error gives the reason.
    bool look_up(std::string_view name, crypto::verifier& out, bool& is_known);

private:
    bool load();
    bool invent(std::string_view name, crypto::verifier& out) const;

    std::string m_path;
    account_list m_accounts;
    std::map<account_list::look, unsigned> m_looks;
    std::string m_secret; // seeds the invented verifiers
};

// Returns the path that the user gave; for null, the path of the file in the framework's configuration folder. On
// false, the last error gives the reason.
bool find_accounts(const char* path, std::string& out);

// Reads accounts from a file. On false, the last error gives the reason. A missing file is an error if `is_missing` is
// null; otherwise it counts as a file without accounts.
bool read_accounts(const std::string& path, account_list& out, bool* is_missing = nullptr);

} // namespace qor::control
