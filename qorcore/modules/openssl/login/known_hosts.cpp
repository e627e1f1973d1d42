#include "known_hosts.h"

#include "private_file.h"
#include "qor/qor.h"

#include <algorithm>

namespace {

using qor::control::key_fingerprint;

constexpr std::string_view algorithm = "sha256";
constexpr std::string_view digits = "0123456789abcdef";

// Host names are not case-sensitive.
std::string plain_host(std::string host) {
    std::transform(host.begin(), host.end(), host.begin(), [](char c) { return c >= 'A' && c <= 'Z' ? c + 32 : c; });
    return host;
}

std::string_view take_word(std::string_view& line) {
    const std::size_t begin = std::min(line.find_first_not_of(" \t\r"), line.size());
    const std::size_t end = std::min(line.find_first_of(" \t\r", begin), line.size());
    const std::string_view word = line.substr(begin, end - begin);
    line.remove_prefix(end);
    return word;
}

} // namespace

std::string qor::control::text_of(const key_fingerprint& key) {
    std::string text;
    for (const uint8 byte : key)
        text += {digits[byte >> 4], digits[byte & 15]};
    return text;
}

std::optional<key_fingerprint> qor::control::read_fingerprint(std::string_view text) {
    key_fingerprint key;
    if (text.size() != 2 * key.size() || text.find_first_not_of(digits) != text.npos)
        return std::nullopt;
    for (std::size_t i = 0; i < key.size(); ++i)
        key[i] = static_cast<uint8>(digits.find(text[2 * i]) << 4 | digits.find(text[2 * i + 1]));
    return key;
}

std::optional<qor::control::known_hosts::entry> qor::control::known_hosts::read_line(std::string_view line) {
    entry made{};
    made.host = take_word(line);
    if (made.host.empty() || made.host.front() == '#')
        return std::nullopt;
    made.port = take_word(line);
    if (take_word(line) == algorithm)
        made.key = read_fingerprint(take_word(line));
    if (!take_word(line).empty())
        made.key.reset();
    return made;
}

bool qor::control::known_hosts::load() {
    if (m_path.empty() && !configuration_file("known-hosts", m_path))
        return false;
    std::string reason;
    return read_own_file(m_path, m_text, reason) || cannot_use(reason);
}

bool qor::control::known_hosts::cannot_write(const std::string& reason) const {
    qorSetLastError(qorError_cannot_write_file, m_path.c_str(), reason.c_str());
    return false;
}

bool qor::control::known_hosts::cannot_use(const std::string& reason) const {
    qorSetLastError(qorError_debug_known_hosts, m_path.c_str(), reason.c_str());
    return false;
}

bool qor::control::known_hosts::look_up(const std::string& host, uint16 port, const key_fingerprint& key, bool& known) {
    known = false;
    if (!load())
        return false;
    const std::string name = plain_host(host);
    const std::string number = std::to_string(port);
    std::string_view rest = m_text;
    for (unsigned line = 1; !rest.empty(); ++line) {
        const std::size_t end = std::min(rest.find('\n'), rest.size());
        const std::optional<entry> found = read_line(rest.substr(0, end));
        rest.remove_prefix(std::min(end + 1, rest.size()));
        if (!found)
            continue;
        const std::string line_number = std::to_string(line);
        // The damaged line may be the one of this host.
        if (!found->key) {
            qorSetLastError(qorError_debug_known_hosts_line, m_path.c_str(), line_number.c_str());
            return false;
        }
        if (found->host != name || found->port != number)
            continue;
        known = *found->key == key;
        if (known)
            return true;
        qorSetLastError(qorError_debug_key_changed, host.c_str(), number.c_str(), m_path.c_str(), line_number.c_str());
        return false;
    }
    return true;
}

bool qor::control::known_hosts::remember(const std::string& host, uint16 port, const key_fingerprint& key) {
    // The host must not be able to break the format of its line.
    if (host.empty() || host.front() == '#' ||
        std::any_of(host.begin(), host.end(), [](char c) { return static_cast<unsigned char>(c) <= ' '; })) {
        qorSetLastError(qorError_no_such_host, host.c_str());
        return false;
    }
    bool known;
    if (!look_up(host, port, key, known) || known)
        return known;
    // Look again under the lock: another console may be adding the same line.
    const private_file_lock lock(m_path);
    std::string reason;
    if (!lock.is_held(reason))
        return cannot_write(reason);
    if (!look_up(host, port, key, known) || known)
        return known;
    if (!m_text.empty() && m_text.back() != '\n')
        m_text += '\n';
    m_text += plain_host(host) + ' ' + std::to_string(port) + ' ' + std::string(algorithm) + ' ' + text_of(key) + '\n';
    return write_private_file(m_path, m_text, reason) || cannot_write(reason);
}
