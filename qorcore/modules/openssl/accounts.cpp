#include "accounts.h"

#include "private_file.h"
#include "qor/qor.h"

#include <openssl/hmac.h>
#include <openssl/pem.h>

#include <algorithm>

namespace {

bool failed(const std::string& path, const std::string& reason) {
    qorSetLastError(qorError_debug_accounts, path.c_str(), reason.c_str());
    return false;
}

std::string text_of(uint32 number, const char* insert = nullptr) {
    qorString text;
    text.Format("qorcore", number, insert);
    return text.Text();
}

std::string read_bio(BIO* bio) {
    char* bytes = nullptr;
    const long size = BIO_get_mem_data(bio, &bytes);
    return {bytes, static_cast<std::size_t>(size)};
}

} // namespace

bool qor::control::accounts::open(const char* path) {
    m_path = path != nullptr ? path : configuration_folder() + "debug-users";
    std::string reason;
    return load(reason) || failed(m_path, reason);
}

bool qor::control::accounts::load(std::string& reason) {
    m_all.clear();
    std::string text;
    if (!file_exists(m_path)) {
        reason = text_of(1078);
        return false;
    }
    if (others_may_read(m_path)) {
        reason = text_of(1079);
        return false;
    }
    if (!read_private_file(m_path, text, reason))
        return false;
    std::string_view rest = text;
    for (unsigned line = 1; !rest.empty(); ++line) {
        const std::size_t end = std::min(rest.find('\n'), rest.size());
        const std::string_view content = rest.substr(0, end);
        rest.remove_prefix(std::min(end + 1, rest.size()));
        if (content.empty() || content[0] == '#')
            continue;
        const std::size_t colon = content.find(':');
        account made;
        if (colon == content.npos || colon == 0 || !made.verifier.read(content.substr(colon + 1))) {
            reason = text_of(1069, std::to_string(line).c_str());
            return false;
        }
        made.name = content.substr(0, colon);
        m_all.push_back(std::move(made));
    }
    return true;
}

uint32 qor::control::accounts::usual_iterations() const {
    return m_all.empty() ? 600'000 : m_all.front().verifier.iterations;
}

bool qor::control::accounts::find(const std::string& name, scram_verifier& out) {
    std::string ignored;
    load(ignored);
    scram_digest false_salt{};
    unsigned size = 0;
    HMAC(EVP_sha256(), m_secret.data(), static_cast<int>(m_secret.size()), reinterpret_cast<const unsigned char*>(name.data()),
         name.size(), false_salt.data(), &size);
    out = {usual_iterations(), {reinterpret_cast<const char*>(false_salt.data()), 16}, {}, {}};
    for (const account& each : m_all)
        if (each.name == name) {
            out = each.verifier;
            return true;
        }
    return false;
}

bool qor::control::accounts::open_key(key_pointer& out) {
    const std::string path = m_path + ".key";
    const std::unique_ptr<BIO, decltype(&BIO_free)> bio(BIO_new(BIO_s_mem()), BIO_free);
    std::string text;
    std::string reason;
    if (!file_exists(path)) {
        out.reset(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519"));
        if (out == nullptr || PEM_write_bio_PrivateKey(bio.get(), out.get(), nullptr, nullptr, 0, nullptr, nullptr) != 1)
            return failed(path, openssl_reason());
        text = read_bio(bio.get());
        if (!write_private_file(path, text, reason))
            return failed(path, reason);
    } else {
        if (others_may_read(path))
            return failed(path, text_of(1079));
        if (!read_private_file(path, text, reason))
            return failed(path, reason);
        BIO_write(bio.get(), text.data(), static_cast<int>(text.size()));
        out.reset(PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr));
        if (out == nullptr)
            return failed(path, openssl_reason());
    }
    m_secret = text;
    return true;
}
