#include "net/address.h"

#include "string/string_data.h"

#include <algorithm>
#include <charconv>
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

std::string scope_text(const qoraddr_ipv6& address, uint32 scope) {
    const std::string name = qor::net::is_link_local(address) ? qor::net::scope_name(scope) : std::string();
    return "%" + (name.empty() ? std::to_string(scope) : name);
}

// Takes a group of hexadecimal digits off the front: one to four.
bool take_group(std::string_view& text, uint32& group) noexcept {
    const std::size_t count = std::min(text.find_first_not_of("0123456789abcdefABCDEF"), text.size());
    if (count == 0 || count > 4)
        return false;
    std::from_chars(text.data(), text.data() + count, group, 16);
    text.remove_prefix(count);
    return true;
}

bool parse_scope(const qoraddr_ipv6& address, std::string_view text, uint32& out) {
    const char* const end = text.data() + text.size();
    if (text.find_first_not_of("0123456789") == text.npos) {
        const auto parsed = std::from_chars(text.data(), end, out);
        return !text.empty() && parsed.ec == std::errc();
    }
    // A name serves for link-local addresses only, as in the system's resolver.
    out = qor::net::is_link_local(address) ? qor::net::scope_index(std::string(text)) : 0;
    return out != 0;
}

} // namespace

bool qor::net::is_link_local(const qoraddr_ipv6& address) noexcept {
    const uint8* const bytes = address.bytes;
    return (bytes[0] == 0xfe && (bytes[1] & 0xc0) == 0x80) ||
           (bytes[0] == 0xff && ((bytes[1] & 15) == 1 || (bytes[1] & 15) == 2));
}

bool qor::net::from_text(std::string_view text, qoraddr_ipv4& out) noexcept {
    qoraddr_ipv4 made;
    for (uint8& byte : made.bytes) {
        if (&byte != made.bytes) {
            if (!text.starts_with('.'))
                return false;
            text.remove_prefix(1);
        }
        const std::size_t count = std::min(text.find_first_not_of("0123456789"), text.size());
        uint32 value = 0;
        if (count == 0 || count > 3 || (count > 1 && text[0] == '0'))
            return false;
        std::from_chars(text.data(), text.data() + count, value);
        if (value > 255)
            return false;
        byte = static_cast<uint8>(value);
        text.remove_prefix(count);
    }
    if (!text.empty())
        return false;
    out = made;
    return true;
}

bool qor::net::from_text(std::string_view text, qoraddr_ipv6& out) noexcept {
    uint32 groups[group_count] = {};
    int count = 0, gap = -1; // `gap` is the place of "::"
    if (text.starts_with("::")) {
        gap = 0;
        text.remove_prefix(2);
    }
    while (!text.empty()) {
        qoraddr_ipv4 embedded;
        if (count <= group_count - 2 && from_text(text, embedded)) {
            for (int i = 0; i < 4; i += 2)
                groups[count++] = uint32{embedded.bytes[i]} << 8 | embedded.bytes[i + 1];
            text = {};
            break;
        }
        if (count == group_count || !take_group(text, groups[count]))
            return false;
        ++count;
        if (text.empty())
            break;
        if (text.starts_with("::") && gap < 0) {
            gap = count;
            text.remove_prefix(2);
        } else if (text.starts_with(':') && text.size() > 1) {
            text.remove_prefix(1);
        } else {
            return false;
        }
    }
    if (gap < 0 ? count != group_count : count == group_count)
        return false;
    if (gap >= 0) {
        std::copy_backward(groups + gap, groups + count, std::end(groups));
        std::fill(groups + gap, groups + gap + group_count - count, 0);
    }
    for (int i = 0; i < group_count; ++i) {
        out.bytes[2 * i] = static_cast<uint8>(groups[i] >> 8);
        out.bytes[2 * i + 1] = static_cast<uint8>(groups[i]);
    }
    return true;
}

bool qor::net::from_text(std::string_view text, qorHostAddress& out, bool* bad_scope) {
    qorHostAddress made;
    if (bad_scope != nullptr)
        *bad_scope = false;
    if (from_text(text, made.ipv4)) {
        made.family = qorAddressFamily::ipv4;
    } else {
        const std::size_t percent = text.find('%');
        if (!from_text(text.substr(0, percent), made.ipv6))
            return false;
        made.family = qorAddressFamily::ipv6;
        if (percent != text.npos && !parse_scope(made.ipv6, text.substr(percent + 1), made.scope)) {
            if (bad_scope != nullptr)
                *bad_scope = true;
            return false;
        }
    }
    out = made;
    return true;
}

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
