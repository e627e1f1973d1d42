#include "secret/key_ring.h"

#include "login/private_file.h"
#include "message_names.h"
#include "qor/qor.h"
#include "secret/key_protection.h"

#include <algorithm>

namespace framework = qor::messages::framework;

namespace {

using qor::control::private_file_lock;
using qor::crypto::wiped_later;

constexpr char file_name[] = "keys/passwords";
constexpr std::string_view first_line = "qor-password-keys 1";
constexpr std::string_view first_word = "qor-password-keys ";

std::string_view take_line(std::string_view& text) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    const std::string_view line = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    return line;
}

std::string bad_line(std::size_t number) {
    qorString reason;
    reason.Format(framework::catalog, framework::encryption_bad_key, std::to_string(number).c_str());
    return reason.Text();
}

std::string newer_keys() {
    qorString reason;
    reason.LoadString(framework::catalog, framework::encryption_newer_keys);
    return reason.Text();
}

// The identifier is computed from the key, so a damaged key does not have it.
bool is_key_of(const qor::secret::named_key& key) {
    std::string id;
    return qor::secret::id_of(key.key, id) && id == key.id;
}

} // namespace

bool qor::secret::key_ring::fail(const std::string& reason) const {
    qorSetLastError(qorError_encryption_keys_unusable, m_path.c_str(), reason.c_str());
    return false;
}

bool qor::secret::key_ring::find_file() { return control::configuration_file(file_name, m_path); }

bool qor::secret::key_ring::read() {
    m_keys.clear();
    std::string text;
    std::string reason;
    bool is_missing = false;
    const wiped_later of_text(text);
    if (!has_no_link(m_path, reason) || !control::read_private_file(m_path, text, reason, is_missing))
        return fail(reason);
    if (is_missing || parse(text))
        return true;
    m_keys.clear(); // no half of a damaged file is used
    return false;
}

bool qor::secret::key_ring::parse(std::string_view text) {
    std::string_view rest = text;
    if (const std::string_view head = take_line(rest); head != first_line)
        return fail(head.starts_with(first_word) ? newer_keys() : bad_line(1));
    // With room for all, none is moved and leaves a copy behind.
    m_keys.reserve(static_cast<std::size_t>(std::count(rest.begin(), rest.end(), '\n')) + 1);
    for (std::size_t number = 2; !rest.empty(); ++number) {
        const std::string_view line = take_line(rest);
        const std::size_t blank = std::min(line.find(' '), line.size());
        named_key& key = m_keys.emplace_back();
        key.id = line.substr(0, blank);
        std::string stored;
        std::string bytes;
        std::string reason;
        const wiped_later of_stored(stored);
        const wiped_later of_bytes(bytes);
        if (!is_id(key.id) || !crypto::from_base64url(line.substr(std::min(blank + 1, line.size())), stored))
            return fail(bad_line(number));
        if (!unprotect(stored, bytes, reason))
            return fail(reason);
        if (bytes.size() != key.key.size())
            return fail(bad_line(number));
        std::copy(bytes.begin(), bytes.end(), key.key.begin());
        if (!is_key_of(key))
            return fail(bad_line(number));
    }
    return !m_keys.empty() || fail(bad_line(2));
}

bool qor::secret::key_ring::add() {
    std::vector<named_key> all;
    all.reserve(m_keys.size() + 1);
    for (named_key& each : m_keys)
        all.push_back(std::move(each));
    m_keys.swap(all);
    named_key& made = m_keys.emplace_back();
    return crypto::random_bytes(made.key.data(), made.key.size()) && id_of(made.key, made.id) && write();
}

bool qor::secret::key_ring::write() const {
    constexpr std::size_t most_of_a_line = 2048; // a key protected by Windows takes some 300 bytes
    std::string text;
    std::string reason;
    const wiped_later of_text(text);
    text.reserve(first_line.size() + 1 + m_keys.size() * most_of_a_line);
    text.append(first_line).append("\n");
    for (const named_key& each : m_keys) {
        std::string stored;
        const wiped_later of_stored(stored);
        if (!protect(crypto::bytes_of(each.key), stored, reason))
            return fail(reason);
        std::string digits = crypto::to_base64url(stored);
        const wiped_later of_digits(digits);
        text.append(each.id).append(" ").append(digits).append("\n");
    }
    return control::write_private_file(m_path, text, reason) || fail(reason);
}

bool qor::secret::key_ring::load() { return find_file() && read(); }

bool qor::secret::key_ring::load_or_make() {
    if (!load())
        return false;
    if (!m_keys.empty())
        return true;
    std::string reason;
    const private_file_lock lock(m_path);
    if (!lock.is_held(reason))
        return fail(reason);
    return read() && (!m_keys.empty() || add());
}

bool qor::secret::key_ring::renew() {
    std::string reason;
    if (!find_file() || !read()) // before the lock, which would follow a link
        return false;
    const private_file_lock lock(m_path);
    if (!lock.is_held(reason))
        return fail(reason);
    return read() && add();
}

const qor::secret::named_key* qor::secret::key_ring::find(std::string_view id) const noexcept {
    const auto found = std::find_if(m_keys.begin(), m_keys.end(), [&](const named_key& each) { return each.id == id; });
    return found != m_keys.end() ? &*found : nullptr;
}
