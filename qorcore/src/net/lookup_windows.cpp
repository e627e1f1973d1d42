#include "net/lookup.h"

#include "catalog/catalog.h"
#include "error/error.h"
#include "message_names.h"
#include "platform/wide_windows.h"

#include <winsock2.h>
// Must follow winsock2.h: windows.h would otherwise include the first version of the socket header.
#include "platform/system_library_windows.h"
#include <ws2tcpip.h>

namespace framework = qor::messages::framework;

namespace {

class resolver {
public:
    resolver() noexcept
        : get(find<decltype(GetAddrInfoW)>("GetAddrInfoW")), free(find<decltype(FreeAddrInfoW)>("FreeAddrInfoW")) {
        const auto start = find<decltype(WSAStartup)>("WSAStartup");
        WSADATA data;
        failure = start == nullptr || get == nullptr || free == nullptr ? static_cast<int>(GetLastError())
                                                                        : start(MAKEWORD(2, 2), &data);
    }

    decltype(GetAddrInfoW)* get;
    decltype(FreeAddrInfoW)* free;
    int failure; // 0, or the reason why the resolver cannot be used

private:
    template <class FUNCTION>
    static FUNCTION* find(const char* name) noexcept {
        return qor::platform::find_function<FUNCTION>(L"ws2_32.dll", name);
    }
};

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

} // namespace

bool qor::net::resolve(const char* name, names which, std::vector<qorHostAddress>& out, lookup_failure& failure) {
    static const resolver system; // never unloaded, like every system library that we load
    if (system.failure != 0) {
        failure = failure_of(system.failure);
        return false;
    }
    std::wstring wide;
    if (!platform::to_wide(name, wide)) {
        failure = {qorError_lookup_failed,
                   std::string(catalog::find(framework::catalog, framework::bad_international_name))};
        return false;
    }
    ADDRINFOW hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM; // otherwise each address comes once for each type of socket
    hints.ai_flags = which == names::numeric_only ? AI_NUMERICHOST : 0;
    ADDRINFOW* list = nullptr;
    const int result = system.get(wide.c_str(), nullptr, &hints, &list);
    if (result != 0) {
        failure = failure_of(result);
        return false;
    }
    add_addresses<sockaddr_in, sockaddr_in6>(list, AF_INET, AF_INET6, out);
    system.free(list);
    return true;
}
