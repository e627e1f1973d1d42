// Inside the module qor-openssl: the form of an encrypted password, and its encryption. docs/passwords.md describes it.
#pragma once

#include "support/primitives.h"

#include <array>
#include <string>
#include <string_view>

namespace qor::secret {

using key_bytes = crypto::digest; // 256 bits
using nonce_bytes = std::array<uint8, 12>;
using tag_bytes = std::array<uint8, 16>;

inline constexpr std::size_t longest_password = 65536;
inline constexpr std::size_t longest_context = 4096;

// Encrypts by AES-256-GCM; `bound` is authenticated only. `cipher` gets as many bytes as `plain` has. Each nonce may be
// used once with a key. On false, the last error gives the reason.
bool seal(const key_bytes& key, const nonce_bytes& nonce, std::string_view bound, std::string_view plain,
          std::string& cipher, tag_bytes& tag);

// The reverse. `is_genuine` is false if any of the inputs is not that of seal(); `plain` is empty then. The caller
// wipes `plain`. On false, the last error gives the reason.
bool unseal(const key_bytes& key, const nonce_bytes& nonce, std::string_view bound, std::string_view cipher,
            const tag_bytes& tag, std::string& plain, bool& is_genuine);

// An encrypted password, taken apart.
struct encrypted {
    std::string key_id;
    nonce_bytes nonce{};
    std::string cipher;
    tag_bytes tag{};
};

// The name of a key: 16 hexadecimal digits, which tell nothing about the key. On false, the last error gives the
// reason.
bool id_of(const key_bytes& key, std::string& id);
bool is_id(std::string_view text) noexcept;

inline constexpr uint32 newest_form = 1;

// Each encrypted password has exactly one form, which no other one has. A text of a later form than ours gives
// form::newer and its number.
enum class form { known, newer, unknown };
form parse(std::string_view text, encrypted& out, uint32& number);
std::string format(const encrypted& value);

// The bytes that are authenticated beside the password.
std::string bound_to(std::string_view key_id, std::string_view context);

} // namespace qor::secret
