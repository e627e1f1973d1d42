// Inside the module qor-openssl: the key that each listener had when it first proved its identity. A line of the file
// has a host, a port and the fingerprint: "127.0.0.1 4711 sha256 <64 hexadecimal digits>"; empty lines and lines that
// begin with '#' are kept.
#pragma once

#include "server_key.h"

#include <optional>
#include <string>
#include <string_view>

namespace qor::control {

// Fingerprints in their text form: 64 hexadecimal digits.
std::string text_of(const key_fingerprint& key);
std::optional<key_fingerprint> read_fingerprint(std::string_view text); // lower-case digits only

class known_hosts {
public:
    // An empty path means the file of the user who runs this process.
    explicit known_hosts(std::string path) : m_path(std::move(path)) {}

    // Returns true if the key is the known one or if no key is known. Returns false on an error or for another key; the
    // last error gives the reason. Do not log in then.
    bool check(const std::string& host, uint16 port, const key_fingerprint& key, bool& is_known) {
        return look_up(host, port, key, is_known);
    }

    // Adds a line unless there is one. On false, the last error gives the reason.
    bool remember(const std::string& host, uint16 port, const key_fingerprint& key);

private:
    struct entry {
        std::string_view host;
        std::string_view port;
        std::optional<key_fingerprint> key; // empty if the line is damaged
    };

    static std::optional<entry> read_line(std::string_view line);
    bool load();
    bool cannot_use(const std::string& reason) const;   // sets the last error; returns false
    bool cannot_write(const std::string& reason) const; // the same; the existing file is unchanged
    bool look_up(const std::string& host, uint16 port, const key_fingerprint& key, bool& known);

    std::string m_path;
    std::string m_text;
};

} // namespace qor::control
