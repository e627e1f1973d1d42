// Texts of services: one that is read can be written, and is read again as the same; any other sets an error that names
// it, and changes nothing. The first byte chooses the defaults. Beside it, addresses are read as the C library does.
#include "net/address.h"
#include "plain_messages.h"
#include "qor/qor.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstdint>
#include <cstring>
#include <string>

namespace {

void check_addresses(const std::string& text) {
    qoraddr_ipv4 four{};
    in_addr expected{};
    const bool is_four = inet_pton(AF_INET, text.c_str(), &expected) == 1;
    require(qor::net::from_text(text, four) == is_four);
    require(!is_four || std::memcmp(four.bytes, &expected, sizeof expected) == 0);
    qoraddr_ipv6 six{};
    in6_addr expected6{};
    const bool is_six = inet_pton(AF_INET6, text.c_str(), &expected6) == 1;
    require(qor::net::from_text(text, six) == is_six);
    require(!is_six || std::memcmp(six.bytes, &expected6, sizeof expected6) == 0);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0)
        return 0;
    std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
    text = text.substr(0, text.find('\0'));
    check_addresses(text);
    qorServiceDefaults defaults;
    if ((data[0] & 1) != 0)
        defaults.host = (data[0] & 2) != 0 ? "::1" : "host.example";
    if ((data[0] & 4) != 0)
        defaults.port = data[0];
    qorServiceDescriptor first;
    first.port = 7;
    const qorServiceDescriptor before = first;
    if (!qorParseServiceDescriptor(text.c_str(), defaults, first)) {
        qorString ignored;
        const uint32 number = qorGetLastError(ignored);
        require(number >= qorError_descriptor_syntax && number <= qorError_descriptor_scope);
        require(first == before);
        return 0;
    }
    require(first.kind != qorServiceKind::none);
    qorString written;
    first.GetText(written);
    qorServiceDescriptor second;
    require(qorParseServiceDescriptor(written, second));
    require(second == first);
    return 0;
}
