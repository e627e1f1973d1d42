// Inside the module qor-openssl: which key each listener had when it first proved itself. A line of the file is a host,
// a port and the fingerprint: "127.0.0.1 4711 sha256 <64 hexadecimal digits>"; empty lines and those that begin with
// '#' are left as they are.
#pragma once

#include "server_key.h"

#include <optional>
#include <string>
#include <string_view>

namespace qor::control {

// Fingerprints as people see them: 64 hexadecimal digits.
std::string text_of(const key_fingerprint& key);
std::optional<key_fingerprint> read_fingerprint(std::string_view text); // letters in lower case

class known_hosts {
public:
    // An empty path is the file of the user that runs this process.
    explicit known_hosts(std::string path) : m_path(std::move(path)) {}

    // True: the key is the one that is known, or none is. False: the last error says why; no login may follow.
    bool check(const std::string& host, uint16 port, const key_fingerprint& key, bool& is_known) {
        return look_up(host, port, key, is_known);
    }

    // Adds a line, unless there is one. False: the last error says why.
    bool remember(const std::string& host, uint16 port, const key_fingerprint& key);

private:
    struct entry {
        std::string_view host;
        std::string_view port;
        std::optional<key_fingerprint> key; // none: the line is damaged
    };

    static std::optional<entry> read_line(std::string_view line);
    bool load();
    bool cannot_use(const std::string& reason) const;   // false, and the last error says so
    bool cannot_write(const std::string& reason) const; // the same; what is there is as good as it was
    bool look_up(const std::string& host, uint16 port, const key_fingerprint& key, bool& known);

    std::string m_path;
    std::string m_text;
};

} // namespace qor::control
