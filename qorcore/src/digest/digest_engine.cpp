// Digest engines by name: MD5 is implemented here, the others come from a module.
#include "digest/md5.h"
#include "error/error.h"
#include "memory/allocator.h"
#include "module/module.h"

#include <algorithm>
#include <iterator>
#include <string_view>

namespace {

constexpr char source[] = "qorcore/src/digest/digest_engine";

class md5_engine final : public qor::object<IQORDigestEngine> {
public:
    md5_engine() noexcept : object("qorcore.md5_engine", "IQORDigestEngine") {}

    bool Reset() noexcept override {
        m_message = {};
        return true;
    }

    bool Update(const void* data, uint32 length) noexcept override {
        m_message.update(static_cast<const uint8*>(data), length);
        return true;
    }

    bool GetDigest(uint8_Array& out) noexcept override {
        uint8 digest[qor::digest::md5::digest_size];
        qor::digest::md5 message = m_message;
        message.finish(digest);
        try {
            out.Empty();
            out.Append(digest, sizeof digest);
            return true;
        } catch (const std::bad_alloc&) {
            qor::error::set(qorError_out_of_memory);
            return false;
        }
    }

private:
    qor::digest::md5 m_message;
};

constexpr std::string_view of_openssl[] = {"sha1", "sha256", "sha512"};

} // namespace

bool qor::glue::qorCreateDigestEngine(const char* algorithm, IQORDigestEngine** out) noexcept {
    const std::string_view name = algorithm != nullptr ? algorithm : "";
    if (name == "md5")
        return memory::make<md5_engine>(source, __LINE__, out);
    if (std::find(std::begin(of_openssl), std::end(of_openssl), name) == std::end(of_openssl)) {
        error::set(qorError_unknown_digest, {algorithm});
        return false;
    }
    void* made = nullptr;
    if (!module::create_object("qor-openssl", "IQORDigestEngine", algorithm, &made))
        return false;
    *out = static_cast<IQORDigestEngine*>(made);
    return true;
}
