#include "secret/password_keys.h"

#include "common/guarded.h"
#include "secret/key_ring.h"

namespace {

constexpr char source[] = "qorcore/modules/openssl/secret/password_keys";

namespace crypto = qor::crypto;
namespace secret = qor::secret;

bool is_too_long(std::size_t password, std::size_t context) {
    if (password <= secret::longest_password && context <= secret::longest_context)
        return false;
    qorSetLastError(qorError_encrypted_too_long, std::to_string(secret::longest_password).c_str(),
                    std::to_string(secret::longest_context).c_str());
    return true;
}

bool refuse(uint32 error) noexcept {
    qorSetLastError(error);
    return false;
}

bool parse(std::string_view text, secret::encrypted& out) {
    uint32 number = 0;
    switch (secret::parse(text, out, number)) {
    case secret::form::known:
        return true;
    case secret::form::newer:
        qorSetLastError(qorError_encrypted_newer, std::to_string(number).c_str(),
                        std::to_string(secret::newest_form).c_str());
        return false;
    default:
        return refuse(qorError_encrypted_password);
    }
}

class password_keys final : public qor::object<IQORPasswordKeys> {
public:
    password_keys() noexcept : object("qorcore.openssl.password_keys", "IQORPasswordKeys") {}

    bool Encrypt(const qorTextView& password, const qorTextView& context, qorString& text) noexcept override {
        return qor::modules::guarded([&] {
            secret::key_ring keys;
            secret::encrypted made;
            if (is_too_long(password.length, context.length) || !keys.load_or_make())
                return false;
            const secret::named_key& key = keys.newest();
            made.key_id = key.id;
            if (!crypto::random_bytes(made.nonce.data(), made.nonce.size()) ||
                !secret::seal(key.key, made.nonce, secret::bound_to(key.id, context), password, made.cipher, made.tag))
                return false;
            text.Set(std::string_view(secret::format(made)));
            return true;
        });
    }

    bool Decrypt(const char* text, const qorTextView& context, qorString& password,
                 bool* has_old_key) noexcept override {
        return qor::modules::guarded([&] {
            secret::encrypted stored;
            secret::key_ring keys;
            if (!parse(text, stored) || is_too_long(0, context.length) || !keys.load())
                return false;
            const secret::named_key* const key = keys.find(stored.key_id);
            if (key == nullptr) {
                qorSetLastError(qorError_encryption_key_unknown, stored.key_id.c_str(), keys.path().c_str());
                return false;
            }
            std::string plain;
            const crypto::wiped_later of_plain(plain);
            bool is_genuine = false;
            if (!secret::unseal(key->key, stored.nonce, secret::bound_to(key->id, context), stored.cipher, stored.tag,
                                plain, is_genuine))
                return false;
            if (!is_genuine)
                return refuse(qorError_encrypted_tampered);
            password.Set(std::string_view(plain));
            if (has_old_key != nullptr)
                *has_old_key = key != &keys.newest();
            return true;
        });
    }

    bool Renew() noexcept override {
        return qor::modules::guarded([] { return secret::key_ring().renew(); });
    }
};

} // namespace

bool create_password_keys(IQORPasswordKeys** out) noexcept {
    return qor::modules::make<password_keys>(source, __LINE__, out);
}
