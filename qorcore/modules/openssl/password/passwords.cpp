#include "passwords.h"

#include "common/guarded.h"
#include "password/verifier.h"

namespace {

constexpr char source[] = "qorcore/modules/openssl/password/passwords";

namespace crypto = qor::crypto;

// 32 characters for five bits each: digits and letters without 0, 1, l and o.
constexpr std::string_view easy_to_tell = "23456789abcdefghijkmnpqrstuvwxyz";
static_assert(easy_to_tell.size() == 32);

bool cannot_use_hash() noexcept {
    qorSetLastError(qorError_bad_password_hash);
    return false;
}

class passwords final : public qor::object<IQORPasswords> {
public:
    passwords() noexcept : object("qorcore.openssl.passwords", "IQORPasswords") {}

    bool CreateHash(const char* password, const char* earlier, qorString& hash) noexcept override {
        return qor::modules::guarded([&] {
            crypto::verifier made;
            if (!crypto::is_password(password))
                return false;
            if (earlier == nullptr) {
                if (!crypto::make_verifier(password, made))
                    return false;
            } else {
                crypto::verifier before;
                if (!crypto::parse_beginning(earlier, before))
                    return cannot_use_hash();
                if (!crypto::make_verifier(password, before.iterations, before.salt, made))
                    return false;
            }
            hash = crypto::format_verifier(made).c_str();
            return true;
        });
    }

    bool Verify(const char* password, const char* hash) noexcept override {
        return qor::modules::guarded([&] {
            crypto::verifier stored;
            if (!crypto::parse_verifier(hash, stored))
                return cannot_use_hash();
            return crypto::is_password(password) && crypto::verify_password(password, stored);
        });
    }

    bool Generate(qorString& password) noexcept override {
        constexpr std::size_t digits = 20;
        uint8 bytes[digits];
        if (!crypto::random_bytes(bytes, sizeof bytes))
            return false;
        password.Empty();
        for (std::size_t i = 0; i < digits; ++i) {
            if (i != 0 && i % 5 == 0)
                password.AppendByte('-');
            password.AppendByte(easy_to_tell[bytes[i] & 31]);
        }
        crypto::wipe(bytes, sizeof bytes);
        return true;
    }
};

} // namespace

bool create_passwords(IQORPasswords** out) noexcept { return qor::modules::make<passwords>(source, __LINE__, out); }
