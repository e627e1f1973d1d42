#include "net/winsock_windows.h"

namespace {

qor::net::winsock load() noexcept {
    qor::net::winsock made;
#define QOR_WINSOCK(function)                                                                                          \
    made.function = qor::platform::find_function<decltype(::function)>(L"ws2_32.dll", #function);                      \
    if (made.function == nullptr && made.failure == 0)                                                                 \
        made.failure = static_cast<int>(GetLastError());
#include "net/winsock_functions_windows.h"
#undef QOR_WINSOCK
    WSADATA data;
    if (made.failure == 0)
        made.failure = made.WSAStartup(MAKEWORD(2, 2), &data);
    return made;
}

} // namespace

const qor::net::winsock& qor::net::the_winsock() noexcept {
    static const winsock loaded = load();
    return loaded;
}
