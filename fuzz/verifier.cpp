// Stored passwords: what is read is written again as it was, and is what a plain reader finds.
#include "password/verifier.h"

#include "plain_messages.h"
#include "plain_scram.h"

#include <cstdint>

namespace {

std::string decoded(const std::string& text) { return text.size() % 4 == 0 ? plain_scram::from_base64(text) : ""; }

bool is_plain(const std::string& text) {
    const std::string scheme = "SCRAM-SHA-256$";
    if (text.substr(0, scheme.size()) != scheme || text.find('\0') != text.npos)
        return false;
    const std::string rest = text.substr(scheme.size());
    const std::size_t dollar = rest.find('$');
    const std::size_t first = rest.find(':');
    const std::size_t second = dollar == rest.npos ? rest.npos : rest.find(':', dollar);
    if (second == rest.npos || first > dollar)
        return false;
    const std::string iterations = rest.substr(0, first);
    const std::string salt = rest.substr(first + 1, dollar - first - 1);
    const std::string stored = rest.substr(dollar + 1, second - dollar - 1);
    const std::string server = rest.substr(second + 1);
    if (iterations.empty() || iterations.size() > 7 || iterations[0] == '0' ||
        iterations.find_first_not_of("0123456789") != iterations.npos || std::stoul(iterations) < 4096 ||
        std::stoul(iterations) > 2000000)
        return false;
    for (const std::string& each : {salt, stored, server})
        if (each.empty() || plain_scram::base64(decoded(each)) != each)
            return false;
    return decoded(stored).size() == 32 && decoded(server).size() == 32;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    qor::crypto::verifier read;
    const bool done = qor::crypto::parse_verifier(input, read);
    require(done == is_plain(std::string(input)));
    require(!done || qor::crypto::format_verifier(read) == input);

    // The beginning of one: with what follows put right it is a whole one.
    qor::crypto::verifier begun;
    const bool is_beginning = qor::crypto::parse_beginning(input, begun);
    require(is_beginning || !done);
    if (is_beginning) {
        const std::string whole = qor::crypto::format_verifier(begun);
        const std::string_view head = std::string_view(whole).substr(0, whole.find('$', 14));
        require(input.substr(0, head.size()) == head && (input.size() == head.size() || input[head.size()] == '$'));
        require(input.size() <= whole.size());
    }

    std::string bytes;
    const bool is_base64 = qor::crypto::from_base64(input, bytes);
    require(!is_base64 || qor::crypto::to_base64(bytes) == input);
    std::string back;
    require(qor::crypto::from_base64(qor::crypto::to_base64(input), back) && back == input);
    return 0;
}
