#include "digest_engine.h"

#include "common/guarded.h"
#include "support/openssl_support.h"

namespace {

constexpr char source[] = "qorcore/modules/openssl/digest/digest_engine";

using qor::crypto::failed;
using digest_pointer = std::unique_ptr<EVP_MD, qor::crypto::openssl_freer>;
using context_pointer = std::unique_ptr<EVP_MD_CTX, qor::crypto::openssl_freer>;

class digest_engine final : public qor::object<IQORDigestEngine> {
public:
    digest_engine(digest_pointer digest, context_pointer context) noexcept
        : object("qorcore.openssl.digest_engine", "IQORDigestEngine"), m_digest(std::move(digest)),
          m_message(std::move(context)) {}

    bool Reset() noexcept override {
        return EVP_DigestInit_ex2(m_message.get(), m_digest.get(), nullptr) == 1 || failed("EVP_DigestInit_ex2");
    }

    bool Update(const void* data, uint32 length) noexcept override {
        return EVP_DigestUpdate(m_message.get(), data, length) == 1 || failed("EVP_DigestUpdate");
    }

    bool GetDigest(uint8_Array& out) noexcept override {
        // Finishing a digest consumes its context, so finish a copy.
        const context_pointer message(EVP_MD_CTX_new());
        if (message == nullptr || EVP_MD_CTX_copy_ex(message.get(), m_message.get()) != 1)
            return failed("EVP_MD_CTX_copy_ex");
        uint8 digest[EVP_MAX_MD_SIZE];
        unsigned size = 0;
        if (EVP_DigestFinal_ex(message.get(), digest, &size) != 1)
            return failed("EVP_DigestFinal_ex");
        return qor::modules::guarded([&] {
            out.Empty();
            out.Append(digest, size);
            return true;
        });
    }

private:
    digest_pointer m_digest;
    context_pointer m_message;
};

} // namespace

bool create_digest_engine(const char* algorithm, IQORDigestEngine** out) noexcept {
    digest_pointer digest(EVP_MD_fetch(nullptr, algorithm, nullptr));
    if (digest == nullptr)
        return failed("EVP_MD_fetch");
    context_pointer context(EVP_MD_CTX_new());
    if (context == nullptr)
        return failed("EVP_MD_CTX_new");
    digest_engine* made = nullptr;
    if (!qor::modules::make<digest_engine>(source, __LINE__, &made, std::move(digest), std::move(context)))
        return false;
    zetSmartPointer<digest_engine> engine;
    engine.AttachNew(made);
    if (!engine->Reset())
        return false;
    *out = engine.Detach();
    return true;
}
