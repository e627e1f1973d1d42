#include "net/address.h"

#include "string/string_data.h"

#include <algorithm>
#include <iterator>

namespace {

constexpr int group_count = 8;

// A range of consecutive groups of an IPv6 address.
struct run {
    int begin, count;
};

// Returns the first of the longest runs of zeros. A single zero does not count as a run.
run longest_zeros(const uint32 (&groups)[group_count], int end) {
    run best{-1, 1};
    for (int i = 0; i < end;) {
        const int begin = i;
        while (i < end && groups[i] == 0)
            ++i;
        if (i - begin > best.count)
            best = {begin, i - begin};
        else if (i == begin)
            ++i;
    }
    return best;
}

std::string hexadecimal(uint32 group) {
    std::string text;
    do
        text.insert(text.begin(), "0123456789abcdef"[group & 15]);
    while ((group >>= 4) != 0);
    return text;
}

// Whether the address is valid on a single link only: fe80::/10, or multicast within a node or a link.
bool is_link_local(const qoraddr_ipv6& address) {
    const uint8* const bytes = address.bytes;
    return (bytes[0] == 0xfe && (bytes[1] & 0xc0) == 0x80) ||
           (bytes[0] == 0xff && ((bytes[1] & 15) == 1 || (bytes[1] & 15) == 2));
}

std::string scope_text(const qoraddr_ipv6& address, uint32 scope) {
    const std::string name = is_link_local(address) ? qor::net::scope_name(scope) : std::string();
    return "%" + (name.empty() ? std::to_string(scope) : name);
}

} // namespace

std::string qor::net::to_text(const qoraddr_ipv4& address) {
    std::string text;
    for (const uint8 byte : address.bytes)
        text.append(text.empty() ? "" : ".").append(std::to_string(byte));
    return text;
}

std::string qor::net::to_text(const qoraddr_ipv6& address, uint32 scope) {
    uint32 groups[group_count];
    for (int i = 0; i < group_count; ++i)
        groups[i] = uint32{address.bytes[2 * i]} << 8 | address.bytes[2 * i + 1];

    // Addresses that embed an IPv4 address: ::ffff:1.2.3.4 and the deprecated form ::1.2.3.4, which excludes ::1.
    const bool has_five_zeros = std::all_of(groups, groups + 5, [](uint32 group) { return group == 0; });
    const bool embeds = has_five_zeros && (groups[5] == 0xffff || (groups[5] == 0 && groups[6] != 0));
    const int end = embeds ? group_count - 2 : group_count;

    const run zeros = longest_zeros(groups, end);
    std::string text;
    for (int i = 0; i < end; ++i) {
        if (i == zeros.begin) {
            text += "::";
            i += zeros.count - 1;
            continue;
        }
        if (!text.empty() && text.back() != ':')
            text += ':';
        text += hexadecimal(groups[i]);
    }
    if (embeds) {
        qoraddr_ipv4 embedded;
        std::copy(address.bytes + 12, std::end(address.bytes), embedded.bytes);
        text.append(text.back() != ':' ? ":" : "").append(to_text(embedded));
    }
    return scope != 0 ? text + scope_text(address, scope) : text;
}

void qor::glue::qorAddressToString_ipv4(const qoraddr_ipv4& address, qorString& out) noexcept {
    string::assign(out, net::to_text(address));
}

void qor::glue::qorAddressToString_ipv6(const qoraddr_ipv6& address, uint32 scope, qorString& out) noexcept {
    string::assign(out, net::to_text(address, scope));
}

void qor::glue::qorAddressToString_host(const qorHostAddress& address, bool with_scope, qorString& out) noexcept {
    switch (address.family) {
    case qorAddressFamily::ipv4:
        return qorAddressToString_ipv4(address.ipv4, out);
    case qorAddressFamily::ipv6:
        return qorAddressToString_ipv6(address.ipv6, with_scope ? address.scope : 0, out);
    case qorAddressFamily::none:
        break;
    }
    string::assign(out, {});
}
