#include "peer_source.h"

#include "common/wide_windows.h"

#include <winsock2.h> // before the three below
#include <ws2tcpip.h>

#include <iphlpapi.h>
#include <sddl.h>

#include <cstring>
#include <memory>
#include <vector>

namespace {

using qor::sockets::endpoint;

struct closer {
    void operator()(HANDLE handle) const noexcept { CloseHandle(handle); }
};
using handle_pointer = std::unique_ptr<void, closer>;

bool is_port(DWORD listed, const endpoint& of) noexcept { return ntohs(static_cast<u_short>(listed)) == of.port(); }

bool is_row(const MIB_TCPROW_OWNER_PID& row, const endpoint& from, const endpoint& here) noexcept {
    return is_port(row.dwLocalPort, from) && is_port(row.dwRemotePort, here) &&
           std::memcmp(&row.dwLocalAddr, from.bytes + endpoint::ipv4_at, 4) == 0;
}

bool is_row(const MIB_TCP6ROW_OWNER_PID& row, const endpoint& from, const endpoint& here) noexcept {
    return is_port(row.dwLocalPort, from) && is_port(row.dwRemotePort, here) &&
           std::memcmp(row.ucLocalAddr, from.bytes + endpoint::ipv6_at, 16) == 0;
}

// Returns the process at the other end; 0 if no table has it.
template <class TABLE>
DWORD process_in(ULONG family, const endpoint& from, const endpoint& here) {
    std::vector<DWORD> memory;
    DWORD size = 0, failed;
    // The table may grow between two calls.
    while ((failed = GetExtendedTcpTable(memory.data(), &size, FALSE, family, TCP_TABLE_OWNER_PID_CONNECTIONS, 0)) ==
           ERROR_INSUFFICIENT_BUFFER) {
        memory.resize(size / sizeof(DWORD) + 1024);
        size = static_cast<DWORD>(memory.size() * sizeof(DWORD));
    }
    if (failed != NO_ERROR || memory.empty())
        return 0;
    const auto& table = *reinterpret_cast<const TABLE*>(memory.data());
    for (DWORD i = 0; i < table.dwNumEntries; ++i)
        if (is_row(table.table[i], from, here))
            return table.table[i].dwOwningPid;
    return 0;
}

} // namespace

// This process may not be allowed to open another user's process. The owner is unknown then.
bool qor::sockets::owner_of(const endpoint& from, const endpoint& here, std::string& user) {
    if (!from.is_loopback())
        return false;
    const DWORD number = from.is_ipv6() ? process_in<MIB_TCP6TABLE_OWNER_PID>(AF_INET6, from, here)
                                        : process_in<MIB_TCPTABLE_OWNER_PID>(AF_INET, from, here);
    const handle_pointer process(number != 0 ? OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, number) : nullptr);
    HANDLE opened = nullptr;
    if (process == nullptr || !OpenProcessToken(process.get(), TOKEN_QUERY, &opened))
        return false;
    const handle_pointer token(opened);
    alignas(TOKEN_USER) char bytes[sizeof(TOKEN_USER) + SECURITY_MAX_SID_SIZE];
    DWORD size = 0;
    wchar_t* text = nullptr;
    if (!GetTokenInformation(token.get(), TokenUser, bytes, sizeof bytes, &size) ||
        !ConvertSidToStringSidW(reinterpret_cast<const TOKEN_USER*>(bytes)->User.Sid, &text))
        return false;
    user = modules::from_wide(text);
    LocalFree(text);
    return true;
}
