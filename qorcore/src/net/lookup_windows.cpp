#include "net/lookup.h"

#include "catalog/catalog.h"
#include "error/error.h"
#include "message_names.h"
#include "net/winsock_windows.h"
#include "platform/wide_windows.h"

#include <memory>

namespace framework = qor::messages::framework;

namespace {

qor::net::lookup_failure failure_of(int code) {
    switch (code) {
    case WSAHOST_NOT_FOUND:
        return {qorError_no_such_host, {}};
    case WSANO_DATA:
        return {qorError_host_without_address, {}};
    case WSATRY_AGAIN:
        return {qorError_no_answer, {}};
    case WSAENETDOWN:
    case WSAENETUNREACH:
        return {qorError_no_network, {}};
    case WSA_NOT_ENOUGH_MEMORY:
        return {qorError_out_of_memory, {}};
    default:
        return {qorError_lookup_failed, qor::error::system_reason(code)};
    }
}

struct free_list {
    void operator()(ADDRINFOW* list) const noexcept { qor::net::the_winsock().FreeAddrInfoW(list); }
};
using list_pointer = std::unique_ptr<ADDRINFOW, free_list>;

// Null on failure.
list_pointer ask(const char* name, int flags, qor::net::lookup_failure& failure) {
    const qor::net::winsock& system = qor::net::the_winsock();
    std::wstring wide;
    if (system.failure != 0) {
        failure = failure_of(system.failure);
        return nullptr;
    }
    if (!qor::platform::to_wide(name, wide)) {
        failure = {qorError_lookup_failed,
                   std::string(qor::catalog::find(framework::catalog, framework::bad_international_name))};
        return nullptr;
    }
    ADDRINFOW hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM; // otherwise each address comes once for each type of socket
    hints.ai_flags = flags;
    ADDRINFOW* list = nullptr;
    const int result = system.GetAddrInfoW(wide.c_str(), nullptr, &hints, &list);
    if (result != 0)
        failure = failure_of(result);
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
    out = list->ai_canonname != nullptr ? platform::from_wide(list->ai_canonname) : std::string();
    return true;
}

bool qor::net::name_of(const qorHostAddress& address, std::string& out, lookup_failure& failure) {
    const winsock& system = the_winsock();
    if (system.failure != 0) {
        failure = failure_of(system.failure);
        return false;
    }
    const socket_address at(address, 0);
    wchar_t name[NI_MAXHOST];
    const int result = system.GetNameInfoW(at.get(), at.size(), name, NI_MAXHOST, nullptr, 0, NI_NAMEREQD);
    if (result != 0) {
        failure = result == WSAHOST_NOT_FOUND || result == WSANO_DATA
                      ? lookup_failure{qorError_address_without_name, {}}
                      : failure_of(result);
        return false;
    }
    out = platform::from_wide(name);
    return true;
}

bool qor::net::own_name(std::string& out, lookup_failure& failure) {
    wchar_t name[NI_MAXHOST];
    DWORD size = NI_MAXHOST;
    if (!GetComputerNameExW(ComputerNameDnsHostname, name, &size)) {
        failure = {qorError_lookup_failed, error::system_reason(static_cast<int>(GetLastError()))};
        return false;
    }
    out = platform::from_wide(name);
    return true;
}
