// Encrypted passwords: what is read is written again as it was, and is what a plain reader finds.
#include "secret/encrypted_text.h"

#include "plain_messages.h"
#include "plain_scram.h"

#include <algorithm>
#include <cstdint>

namespace {

// Splits at each of the separators, which must come in this order and no more often.
std::vector<std::string> split(const std::string& text, const std::string& separators) {
    std::vector<std::string> parts(1);
    std::size_t next = 0;
    for (const char c : text) {
        if (next < separators.size() && c == separators[next]) {
            ++next;
            parts.emplace_back();
        } else {
            parts.back().append(1, c);
        }
    }
    return next == separators.size() ? parts : std::vector<std::string>{};
}

// The number of bytes; -1: it is no base64url without padding.
long bytes_in(std::string text) {
    if (text.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_") != text.npos)
        return -1;
    std::replace(text.begin(), text.end(), '-', '+');
    std::replace(text.begin(), text.end(), '_', '/');
    text.append((4 - text.size() % 4) % 4, '=');
    const std::string bytes = plain_scram::from_base64(text);
    return plain_scram::base64(bytes) == text ? static_cast<long>(bytes.size()) : -1;
}

bool is_plain(const std::string& text) {
    const std::vector<std::string> parts = split(text, "$:$::");
    if (parts.size() != 6 || parts[0] != "AES-256-GCM" || parts[1] != "1" || text.find('\0') != text.npos)
        return false;
    const std::string& id = parts[2];
    return id.size() == 16 && id.find_first_not_of("0123456789abcdef") == id.npos && bytes_in(parts[3]) == 12 &&
           bytes_in(parts[4]) >= 0 && bytes_in(parts[4]) <= 65536 && bytes_in(parts[5]) == 16;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    qor::secret::encrypted read;
    uint32 number = 0;
    const qor::secret::form found = qor::secret::parse(input, read, number);
    require((found == qor::secret::form::known) == is_plain(input));
    require(found != qor::secret::form::known || qor::secret::format(read) == input);
    require(found != qor::secret::form::newer || number > qor::secret::newest_form);
    return 0;
}
