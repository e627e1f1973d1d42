// Converts error codes of Windows (see "System Error Codes" in the Windows documentation) into the framework's.
#include "qor/qor.h"

#include <algorithm>
#include <iterator>

namespace {

struct translation {
    uint32 code;
    qorErrorNumber number;
};

// Only numbers whose texts have no inserts: a code alone names no file, user or host.
constexpr translation translations[] = {
    {0, qorError_none},                   // ERROR_SUCCESS
    {2, qorError_not_found},              // ERROR_FILE_NOT_FOUND
    {3, qorError_not_found},              // ERROR_PATH_NOT_FOUND
    {5, qorError_access_denied},          // ERROR_ACCESS_DENIED
    {8, qorError_out_of_memory},          // ERROR_NOT_ENOUGH_MEMORY
    {14, qorError_out_of_memory},         // ERROR_OUTOFMEMORY
    {15, qorError_not_found},             // ERROR_INVALID_DRIVE
    {19, qorError_access_denied},         // ERROR_WRITE_PROTECT
    {32, qorError_in_use},                // ERROR_SHARING_VIOLATION
    {33, qorError_in_use},                // ERROR_LOCK_VIOLATION
    {39, qorError_disk_full},             // ERROR_HANDLE_DISK_FULL
    {50, qorError_not_supported},         // ERROR_NOT_SUPPORTED
    {53, qorError_not_found},             // ERROR_BAD_NETPATH
    {64, qorError_connection_lost},       // ERROR_NETNAME_DELETED
    {80, qorError_already_exists},        // ERROR_FILE_EXISTS
    {86, qorError_credentials_refused},   // ERROR_INVALID_PASSWORD
    {112, qorError_disk_full},            // ERROR_DISK_FULL
    {120, qorError_not_supported},        // ERROR_CALL_NOT_IMPLEMENTED
    {121, qorError_timed_out},            // ERROR_SEM_TIMEOUT
    {123, qorError_not_found},            // ERROR_INVALID_NAME
    {183, qorError_already_exists},       // ERROR_ALREADY_EXISTS
    {206, qorError_not_found},            // ERROR_FILENAME_EXCED_RANGE
    {267, qorError_not_found},            // ERROR_DIRECTORY
    {1225, qorError_connection_lost},     // ERROR_CONNECTION_REFUSED
    {1236, qorError_connection_lost},     // ERROR_CONNECTION_ABORTED
    {1317, qorError_not_found},           // ERROR_NO_SUCH_USER
    {1326, qorError_credentials_refused}, // ERROR_LOGON_FAILURE
    {1332, qorError_not_found},           // ERROR_NONE_MAPPED
    {1460, qorError_timed_out},           // ERROR_TIMEOUT
    {10053, qorError_connection_lost},    // WSAECONNABORTED
    {10054, qorError_connection_lost},    // WSAECONNRESET
    {10060, qorError_timed_out},          // WSAETIMEDOUT
    {10061, qorError_connection_lost},    // WSAECONNREFUSED
    {11001, qorError_not_found},          // WSAHOST_NOT_FOUND
};

} // namespace

uint32 qor::glue::qorTranslateMSWindowsError(uint32 code) noexcept {
    const auto* const found = std::lower_bound(std::begin(translations), std::end(translations), code,
                                               [](const translation& row, uint32 wanted) { return row.code < wanted; });
    return found != std::end(translations) && found->code == code ? found->number : qorError_unknown;
}
