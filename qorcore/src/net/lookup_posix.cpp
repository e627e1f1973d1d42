#include "net/lookup.h"

#include "catalog/catalog.h"
#include "error/error.h"
#include "message_names.h"
#include "net/socket_address_posix.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <clocale>
#include <dlfcn.h>
#include <ifaddrs.h>
#include <memory>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <optional>
#include <string_view>
#include <unistd.h>

namespace framework = qor::messages::framework;

namespace {

bool is_international(std::string_view name) {
    return std::any_of(name.begin(), name.end(), [](char c) { return static_cast<unsigned char>(c) > 127; });
}

// The C library reads names in the character set of the thread's locale. Ours are UTF-8, whatever the locale of the
// process is.
class utf8_thread {
public:
    utf8_thread() noexcept : m_locale(newlocale(LC_CTYPE_MASK, "C.UTF-8", locale_t{})) {
        if (m_locale != locale_t{})
            m_before = uselocale(m_locale);
    }
    utf8_thread(const utf8_thread&) = delete;
    utf8_thread& operator=(const utf8_thread&) = delete;
    ~utf8_thread() {
        if (m_locale == locale_t{})
            return;
        uselocale(m_before);
        freelocale(m_locale);
    }

private:
    locale_t m_locale;
    locale_t m_before{};
};

// Whether an interface other than the loopback is up and has an address. True if the system cannot tell.
bool has_network() {
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0)
        return true;
    bool found = false;
    for (const ifaddrs* each = list; each != nullptr && !found; each = each->ifa_next)
        found = (each->ifa_flags & IFF_UP) != 0 && (each->ifa_flags & IFF_LOOPBACK) == 0 && each->ifa_addr != nullptr &&
                (each->ifa_addr->sa_family == AF_INET || each->ifa_addr->sa_family == AF_INET6);
    freeifaddrs(list);
    return found;
}

// The C library loads libidn2 when it meets the first international name.
bool has_libidn2() {
    void* const library = dlopen("libidn2.so.0", RTLD_LAZY | RTLD_LOCAL);
    if (library != nullptr)
        dlclose(library);
    return library != nullptr;
}

qor::net::lookup_failure failure_of(int result, int system_code) {
    const auto other = [](std::string_view reason) {
        return qor::net::lookup_failure{qorError_lookup_failed, std::string(reason)};
    };
    switch (result) {
    case EAI_NONAME:
        return {qorError_no_such_host, {}};
    case EAI_NODATA:
    case EAI_ADDRFAMILY:
        return {qorError_host_without_address, {}};
    case EAI_AGAIN:
        return {has_network() ? qorError_no_answer : qorError_no_network, {}};
    case EAI_MEMORY:
        return {qorError_out_of_memory, {}};
    case EAI_IDN_ENCODE:
        return other(qor::catalog::find(framework::catalog,
                                        has_libidn2() ? framework::bad_international_name : framework::no_libidn2));
    case EAI_SYSTEM:
        return other(qor::error::system_reason(system_code));
    default:
        return other(gai_strerror(result));
    }
}

struct free_list {
    void operator()(addrinfo* list) const noexcept { freeaddrinfo(list); }
};
using list_pointer = std::unique_ptr<addrinfo, free_list>;

// Null on failure.
list_pointer ask(const char* name, int flags, qor::net::lookup_failure& failure) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM; // otherwise each address comes once for each type of socket
    hints.ai_flags = flags;
    std::optional<utf8_thread> utf8;
    if (is_international(name)) {
        hints.ai_flags |= AI_IDN;
        utf8.emplace();
    }
    addrinfo* list = nullptr;
    const int result = getaddrinfo(name, nullptr, &hints, &list);
    const int system_code = errno;
    if (result != 0)
        failure = failure_of(result, system_code);
    return list_pointer(result == 0 ? list : nullptr);
}

} // namespace

bool qor::net::resolve(const char* name, names which, std::vector<qorHostAddress>& out, lookup_failure& failure) {
    const list_pointer list = ask(name, which == names::numeric_only ? AI_NUMERICHOST : 0, failure);
    if (list == nullptr)
        return false;
    add_addresses<sockaddr_in, sockaddr_in6>(list.get(), AF_INET, AF_INET6, out);
    return true;
}

bool qor::net::canonical_name(const char* name, std::string& out, lookup_failure& failure) {
    const list_pointer list = ask(name, AI_CANONNAME, failure);
    if (list == nullptr)
        return false;
    out = list->ai_canonname != nullptr ? list->ai_canonname : "";
    return true;
}

bool qor::net::name_of(const qorHostAddress& address, std::string& out, lookup_failure& failure) {
    const socket_address at(address, 0);
    char name[NI_MAXHOST];
    const int result = getnameinfo(at.get(), at.size(), name, sizeof name, nullptr, 0, NI_NAMEREQD);
    const int system_code = errno;
    if (result != 0) {
        failure =
            result == EAI_NONAME ? lookup_failure{qorError_address_without_name, {}} : failure_of(result, system_code);
        return false;
    }
    out = name;
    return true;
}

bool qor::net::own_name(std::string& out, lookup_failure& failure) {
    char name[HOST_NAME_MAX + 1] = {};
    if (gethostname(name, sizeof name - 1) != 0) {
        failure = {qorError_lookup_failed, error::system_reason(errno)};
        return false;
    }
    out = name;
    return true;
}
