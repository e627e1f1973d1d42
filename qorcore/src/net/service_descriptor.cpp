#include "catalog/catalog.h"
#include "error/error.h"
#include "message_names.h"
#include "net/address.h"
#include "net/services.h"
#include "string/string_data.h"
#include "string/unicode.h"

#include <algorithm>
#include <charconv>
#include <string>
#include <string_view>

namespace framework = qor::messages::framework;

namespace {

constexpr std::size_t longest_host = 253;   // of the domain name system, in its text form
constexpr std::size_t longest_label = 63;   // the same, between dots
constexpr std::size_t longest_service = 63; // four times the longest that is registered
constexpr std::size_t longest_path = 107;   // with its NUL it fills the address of a socket
constexpr std::size_t longest_pipe = 247;   // with "\\.\pipe\" before it
constexpr uint32 greatest_port = 65535;

constexpr std::string_view digits = "0123456789";
constexpr std::string_view hexadecimal = "0123456789abcdefABCDEF";

bool consists_of(std::string_view text, std::string_view characters) noexcept {
    return text.find_first_not_of(characters) == text.npos;
}

constexpr bool is_letter_or_digit(char c) noexcept {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

// Takes a text apart into a descriptor. The functions return false after setting the last error; places are views into
// the whole text.
class reader {
public:
    reader(std::string_view text, const qorServiceDefaults& defaults) noexcept : m_text(text), m_defaults(defaults) {}

    bool read() {
        if (m_text.empty())
            return is_wrong(m_text, framework::descriptor_empty);
        std::string_view rest = m_text;
        if (take("unix:", rest))
            return read_path(rest);
        if (take("pipe:", rest))
            return read_pipe(rest);
        if (!take("tcp://", rest)) {
            if (const std::size_t end = m_text.find("://"); end != m_text.npos) {
                const std::string scheme(m_text.substr(0, end + 3));
                qor::error::set(qorError_descriptor_scheme, {whole().c_str(), scheme.c_str()});
                return false;
            }
        }
        return read_tcp(rest);
    }

    // A default, which has no port.
    bool read_default_host(std::string_view host) {
        if (host.starts_with('[') && host.ends_with(']'))
            return read_ipv6(host.substr(1, host.size() - 2));
        return host.find(':') != host.npos ? read_ipv6(host) : read_host(host);
    }

    void take_host_from(reader& other) {
        m_host = std::move(other.m_host);
        m_address = other.m_address;
    }

    void move_to(qorServiceDescriptor& out) const {
        out.kind = m_kind;
        out.address = m_address;
        out.port = m_port;
        qor::string::assign(out.host, m_host);
        qor::string::assign(out.service, m_service);
        qor::string::assign(out.path, m_path);
    }

private:
    static bool take(std::string_view prefix, std::string_view& rest) {
        if (qor::string::compare_no_case(rest.substr(0, prefix.size()), prefix) != 0)
            return false;
        rest.remove_prefix(prefix.size());
        return true;
    }

    std::string whole() const { return std::string(m_text); }
    std::string byte_of(std::string_view place) const { return std::to_string(place.data() - m_text.data() + 1); }

    bool is_wrong(std::string_view place, uint32 message) const {
        qor::error::set(qorError_descriptor_syntax,
                        {whole().c_str(), byte_of(place).c_str(),
                         std::string(qor::catalog::find(framework::catalog, message)).c_str()});
        return false;
    }

    bool is_too_long(std::string_view place, std::size_t most) const {
        qor::error::set(qorError_descriptor_too_long,
                        {whole().c_str(), byte_of(place).c_str(), std::to_string(most).c_str()});
        return false;
    }

    bool is_unknown(qorErrorNumber number, std::string_view name) const {
        qor::error::set(number, {whole().c_str(), byte_of(name).c_str(), std::string(name).c_str()});
        return false;
    }

    bool read_path(std::string_view path) {
        if (path.empty())
            return is_wrong(path, framework::descriptor_path);
        if (path.size() > longest_path)
            return is_too_long(path, longest_path);
        m_kind = qorServiceKind::unix_socket;
        m_path = path;
        return true;
    }

    bool read_pipe(std::string_view name) {
        if (name.empty())
            return is_wrong(name, framework::descriptor_path);
        if (name.size() > longest_pipe)
            return is_too_long(name, longest_pipe);
        for (std::string_view rest = name; !rest.empty();) {
            const qor::string::decoded next = qor::string::decode(rest);
            if (!next.valid || next.character < ' ' || next.character == 0x7f || next.character == '\\' ||
                next.character == '/')
                return is_wrong(rest, framework::descriptor_character);
            rest.remove_prefix(next.size);
        }
        m_kind = qorServiceKind::pipe;
        m_path = name;
        return true;
    }

    bool read_tcp(std::string_view rest) {
        m_kind = qorServiceKind::tcp;
        if (rest.empty())
            return is_wrong(rest, framework::descriptor_empty);
        if (rest.starts_with('[')) {
            const std::size_t end = rest.find(']');
            if (end == rest.npos)
                return is_wrong(rest, framework::descriptor_not_ipv6);
            if (!read_ipv6(rest.substr(1, end - 1)))
                return false;
            rest.remove_prefix(end + 1);
        } else {
            const std::size_t colon = std::min(rest.find(':'), rest.size());
            if (const std::size_t second = rest.find(':', colon + 1); second != rest.npos)
                return looks_like_ipv6(rest) ? is_wrong(rest, framework::descriptor_needs_brackets)
                                             : is_wrong(rest.substr(second), framework::descriptor_character);
            if (colon != 0 && !read_host(rest.substr(0, colon)))
                return false;
            if (colon == 0 && !read_default())
                return false;
            rest.remove_prefix(colon);
        }
        if (rest.empty())
            return read_default_port();
        if (!rest.starts_with(':'))
            return is_wrong(rest, framework::descriptor_character);
        return read_port(rest.substr(1));
    }

    static bool looks_like_ipv6(std::string_view text) {
        qoraddr_ipv6 ignored;
        const std::string_view address = text.substr(0, text.find('%'));
        return qor::net::from_text(address, ignored) || qor::net::from_text(text.substr(0, text.rfind(':')), ignored);
    }

    bool read_default() {
        if (m_defaults.host == nullptr || *m_defaults.host == '\0')
            return true;
        reader other(m_defaults.host, {});
        if (!other.read_default_host(m_defaults.host)) {
            qor::error::set(qorError_invalid_argument, {"qorParseServiceDescriptor", m_defaults.host});
            return false;
        }
        take_host_from(other);
        return true;
    }

    bool read_ipv6(std::string_view text) {
        bool bad_scope = false;
        if (!qor::net::from_text(text, m_address, &bad_scope) || m_address.family != qorAddressFamily::ipv6) {
            const std::size_t percent = text.find('%');
            return bad_scope && percent + 1 < text.size()
                       ? is_unknown(qorError_descriptor_scope, text.substr(percent + 1))
                       : is_wrong(text, framework::descriptor_not_ipv6);
        }
        m_host = qor::net::to_text(m_address.ipv6, m_address.scope);
        return true;
    }

    // A name or an IPv4 address.
    bool read_host(std::string_view text) {
        if (qor::net::from_text(text, m_address.ipv4)) {
            m_address.family = qorAddressFamily::ipv4;
            m_host = text;
            return true;
        }
        for (std::string_view rest = text; !rest.empty();) {
            const qor::string::decoded next = qor::string::decode(rest);
            const bool is_plain = is_letter_or_digit(rest[0]) || rest[0] == '-' || rest[0] == '_' || rest[0] == '.';
            if (!is_plain && (!next.valid || next.character < 0xa1))
                return is_wrong(rest, framework::descriptor_character);
            rest.remove_prefix(next.size);
        }
        if (text.size() > longest_host)
            return is_too_long(text, longest_host);
        std::string_view last;
        for (std::string_view rest = text;;) {
            const std::size_t end = std::min(rest.find('.'), rest.size());
            const std::string_view label = rest.substr(0, end);
            // A dot at the end of a name is its root.
            const bool is_root = label.empty() && end == rest.size() && !last.empty();
            const bool is_ascii =
                std::ranges::all_of(label, [](char c) { return static_cast<unsigned char>(c) < 128; });
            if ((label.empty() && !is_root) || (is_ascii && label.size() > longest_label))
                return is_wrong(rest, framework::descriptor_label);
            if (!is_root)
                last = label;
            if (end == rest.size())
                break;
            rest.remove_prefix(end + 1);
        }
        // Systems take such a text for an address, but not all for the same one.
        const bool is_hexadecimal = last.size() >= 2 && last[0] == '0' && (last[1] == 'x' || last[1] == 'X') &&
                                    consists_of(last.substr(2), hexadecimal);
        if (consists_of(last, digits) || is_hexadecimal)
            return is_wrong(text, framework::descriptor_not_ipv4);
        m_host = text;
        return true;
    }

    bool read_default_port() {
        if (m_defaults.port < 0) {
            qor::error::set(qorError_descriptor_without_port, {whole().c_str()});
            return false;
        }
        m_port = static_cast<uint16>(m_defaults.port);
        return true;
    }

    bool read_port(std::string_view text) {
        if (consists_of(text, digits)) {
            uint32 port = 0;
            const auto parsed = std::from_chars(text.data(), text.data() + text.size(), port);
            if (parsed.ec != std::errc() || port > greatest_port)
                return is_wrong(text, framework::descriptor_port);
            m_port = static_cast<uint16>(port);
            return true;
        }
        const auto odd = std::ranges::find_if_not(text, [](char c) {
            return is_letter_or_digit(c) || c == '-' || c == '_' || c == '.' || c == '+' || c == '*';
        });
        if (odd != text.end())
            return is_wrong(text.substr(static_cast<std::size_t>(odd - text.begin())), framework::descriptor_character);
        if (text.size() > longest_service)
            return is_too_long(text, longest_service);
        m_service = text;
        return qor::net::port_of_service(m_service, m_port) || is_unknown(qorError_descriptor_no_service, text);
    }

    std::string_view m_text;
    qorServiceDefaults m_defaults;
    qorServiceKind m_kind = qorServiceKind::none;
    std::string m_host;
    qorHostAddress m_address;
    std::string m_service;
    uint16 m_port = 0;
    std::string m_path;
};

} // namespace

bool qor::glue::qorParseServiceDescriptor(const char* text, const qorServiceDefaults& defaults,
                                          qorServiceDescriptor& out) noexcept {
    if (defaults.port > static_cast<int32>(greatest_port)) {
        error::set(qorError_invalid_argument, {"qorParseServiceDescriptor", std::to_string(defaults.port).c_str()});
        return false;
    }
    reader in(string::view(text), defaults);
    if (!in.read())
        return false;
    in.move_to(out);
    return true;
}
