#include "accounts.h"

#include "message_names.h"
#include "private_file.h"
#include "qor/qor.h"
#include "server_key.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace framework = qor::messages::framework;

namespace {

using qor::control::account_list;

// Texts in the catalog "qorcore", in the order of account_list::fault.
constexpr uint32 first_fault_text = framework::no_colon;

bool cannot_use(const std::string& path, const std::string& reason) {
    qorSetLastError(qorError_accounts_unusable, path.c_str(), reason.c_str());
    return false;
}

} // namespace

bool qor::control::is_user_name(std::string_view name) noexcept {
    return !name.empty() && name.size() <= longest_user_name && name.find(':') == name.npos && name.front() != '#' &&
           name.front() != ' ' && name.back() != ' ' && !crypto::has_control_characters(name);
}

bool qor::control::account_list::parse(std::string_view text, unsigned& line, fault& what) {
    *this = {};
    what = fault::none;
    for (line = 1; !text.empty() && what == fault::none; ++line) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        std::string_view all = text.substr(0, end);
        text.remove_prefix(std::min(end + 1, text.size()));
        if (!all.empty() && all.back() == '\r')
            all.remove_suffix(1);
        entry made;
        made.line = all;
        if (!all.empty() && all.front() != '#')
            what = parse_account(all, made);
        m_entries.push_back(std::move(made));
    }
    if (what == fault::none)
        return true;
    --line;
    *this = {};
    return false;
}

account_list::fault qor::control::account_list::parse_account(std::string_view all, entry& made) {
    const std::size_t colon = all.find(':');
    if (colon == all.npos)
        return fault::no_colon;
    made.name = all.substr(0, colon);
    if (!is_user_name(made.name))
        return fault::bad_name;
    if (!crypto::parse_verifier(all.substr(colon + 1), made.value))
        return fault::bad_verifier;
    return m_places.try_emplace(made.name, m_entries.size()).second ? fault::none : fault::twice;
}

std::string qor::control::account_list::format() const {
    std::string text;
    for (const entry& each : m_entries)
        text += each.line + '\n';
    return text;
}

const qor::crypto::verifier* qor::control::account_list::find(std::string_view name) const noexcept {
    const auto found = m_places.find(name);
    return found != m_places.end() ? &m_entries[found->second].value : nullptr;
}

void qor::control::account_list::set(std::string_view name, const crypto::verifier& value) {
    const std::size_t place = m_places.try_emplace(std::string(name), m_entries.size()).first->second;
    if (place == m_entries.size())
        m_entries.emplace_back();
    entry& changed = m_entries[place];
    changed.value = value;
    changed.name = name;
    changed.line = changed.name + ':' + format_verifier(value);
}

bool qor::control::account_list::remove(std::string_view name) {
    const auto found = m_places.find(name);
    if (found == m_places.end())
        return false;
    const std::size_t place = found->second;
    m_entries.erase(m_entries.begin() + static_cast<std::ptrdiff_t>(place));
    m_places.erase(found);
    for (auto& [other, behind] : m_places)
        if (behind > place)
            --behind;
    return true;
}

std::vector<std::string> qor::control::account_list::names() const {
    std::vector<std::string> all;
    for (const entry& each : m_entries)
        if (!each.name.empty())
            all.push_back(each.name);
    return all;
}

std::map<account_list::look, unsigned> qor::control::account_list::looks() const {
    std::map<look, unsigned> all;
    for (const entry& each : m_entries)
        if (!each.name.empty())
            ++all[{each.value.iterations, each.value.salt.size()}];
    return all;
}

bool qor::control::read_accounts(const std::string& path, account_list& out, bool* is_missing) {
    std::string text;
    std::string reason;
    bool missing = false;
    if (!read_private_file(path, text, reason, missing))
        return cannot_use(path, reason);
    if (is_missing != nullptr)
        *is_missing = missing;
    else if (missing) {
        qorSetLastError(qorError_accounts_missing, path.c_str());
        return false;
    }
    unsigned line;
    account_list::fault what;
    if (out.parse(text, line, what))
        return true;
    qorString fault;
    fault.LoadString(framework::catalog, first_fault_text + static_cast<uint32>(what) - 1);
    qorSetLastError(qorError_accounts_bad_line, path.c_str(), std::to_string(line).c_str(), fault);
    return false;
}

bool qor::control::find_accounts(const char* path, std::string& out) {
    if (path == nullptr)
        return configuration_file("debug-users", out);
    out = path;
    return true;
}

bool qor::control::accounts::open(const char* path) {
    // open_key() replaces this by a secret derived from the key. Until then, the secret only has to be unpredictable.
    crypto::digest secret;
    if (!find_accounts(path, m_path) || !crypto::random_bytes(secret.data(), secret.size()) || !load())
        return false;
    m_secret = crypto::bytes_of(secret);
    return true;
}

bool qor::control::accounts::open_key(crypto::key_pointer& key) {
    crypto::digest secret;
    const crypto::wiped_later of_secret(secret);
    if (!open_server_key(m_path, key) || !secret_of_key(key.get(), "qor-debug false salt", secret))
        return false;
    m_secret = crypto::bytes_of(secret);
    return true;
}

bool qor::control::accounts::load() {
    const bool done = read_accounts(m_path, m_accounts);
    if (!done)
        m_accounts = {};
    m_looks = m_accounts.looks();
    if (m_looks.empty())
        m_looks[{crypto::default_iterations, crypto::default_salt_size}] = 1;
    return done;
}

// Weighted rendezvous hashing: each look gets a pseudorandom number for the name, keyed by a secret, and the best
// number, weighted by the count of accounts with that look, wins. So a look is as frequent among unknown names as among
// the accounts, and a change of the accounts changes the look of as few names as possible. The salt depends on the look
// too, because an account whose look changes also gets a new salt.
bool qor::control::accounts::invent(std::string_view name, crypto::verifier& out) const {
    out = {};
    double most = 0;
    std::string seed;
    for (const auto& [look, count] : m_looks) {
        // The name of a login contains no zero byte.
        std::string text(name);
        text.append(1, '\0').append(std::to_string(look.first)).append(1, ':').append(std::to_string(look.second));
        crypto::digest lot;
        if (!crypto::hmac_sha256(m_secret, text, lot))
            return false;
        uint64 number;
        std::memcpy(&number, lot.data(), sizeof number);
        // Uniform in (0, 1]; a double holds 53 bits exactly.
        const double luck = static_cast<double>((number >> 11) + 1) * 0x1p-53;
        const double weight = count / std::max(-std::log(luck), 0x1p-60);
        if (weight > most) {
            most = weight;
            seed = text;
            out.iterations = look.first;
            out.salt.resize(look.second);
        }
    }
    seed += ':';
    crypto::digest piece;
    for (std::size_t at = 0; at < out.salt.size(); at += piece.size()) {
        if (!crypto::hmac_sha256(m_secret, seed + std::to_string(at), piece))
            return false;
        out.salt.replace(at, piece.size(), crypto::bytes_of(piece).substr(0, out.salt.size() - at));
    }
    return true;
}

bool qor::control::accounts::look_up(std::string_view name, crypto::verifier& out, bool& is_known) {
    // Read the file again: an account that was removed meanwhile must not log in. An unusable file counts as one
    // without accounts.
    if (!load()) {
        qorString reason;
        qorGetLastError(reason);
        qorDebug(qorDebugAllocateCode("system.debug-control"), "%s", reason.Text());
    }
    // Computed for known users too, so that the response time reveals nothing.
    if (!invent(name, out))
        return false;
    const crypto::verifier* const found = m_accounts.find(name);
    is_known = found != nullptr;
    if (is_known)
        out = *found;
    return true;
}
