// Inside the module qor-openssl: the user's keys for encrypted passwords, and the file that keeps them.
#pragma once

#include "secret/encrypted_text.h"

#include <string>
#include <string_view>
#include <vector>

namespace qor::secret {

// A key, wiped at its end.
struct named_key {
    std::string id;
    key_bytes key{};

    named_key() = default;
    named_key(const named_key&) = delete;
    named_key(named_key&&) = default;
    named_key& operator=(const named_key&) = delete;
    named_key& operator=(named_key&&) = default;
    ~named_key() { crypto::wipe(key); }
};

// The keys in the order of their making; the last one encrypts. Bad files and failed operations set the last error,
// which names the file.
class key_ring {
public:
    // Reads the user's keys. Without a file there are none.
    bool load();
    // The same, and makes the first key if there is none. Of several processes, one makes it.
    bool load_or_make();
    // Adds a key to those that there are.
    bool renew();

    const named_key* find(std::string_view id) const noexcept;
    const named_key& newest() const noexcept { return m_keys.back(); }
    const std::string& path() const noexcept { return m_path; }

private:
    bool find_file();
    bool read();
    bool parse(std::string_view text);
    bool add();
    bool write() const;
    bool fail(const std::string& reason) const;

    std::string m_path;
    std::vector<named_key> m_keys;
};

} // namespace qor::secret
