#include "secret/key_protection.h"

#include "common/system_reason.h"
#include "login/private_file.h"
#include "qor/glue/wide_path_windows.h"
#include "support/primitives.h"

#include <windows.h>

#include <dpapi.h>

namespace {

// Another program of the same user that decrypts whatever it finds does not know it.
char purpose[] = "qor password key";

DATA_BLOB blob_of(std::string_view bytes) noexcept {
    return {static_cast<DWORD>(bytes.size()), reinterpret_cast<BYTE*>(const_cast<char*>(bytes.data()))};
}

bool take(BOOL succeeded, const DATA_BLOB& made, std::string& out, std::string& reason) {
    if (!succeeded) {
        reason = qor::modules::system_reason(static_cast<int>(GetLastError()));
        return false;
    }
    out.assign(reinterpret_cast<const char*>(made.pbData), made.cbData);
    qor::crypto::wipe(made.pbData, made.cbData);
    LocalFree(made.pbData);
    return true;
}

} // namespace

bool qor::secret::protect(std::string_view key, std::string& out, std::string& reason) {
    DATA_BLOB in = blob_of(key);
    DATA_BLOB entropy = blob_of(purpose);
    DATA_BLOB made{};
    return take(CryptProtectData(&in, L"", &entropy, nullptr, nullptr, CRYPTPROTECT_UI_FORBIDDEN, &made), made, out,
                reason);
}

bool qor::secret::unprotect(std::string_view stored, std::string& key, std::string& reason) {
    DATA_BLOB in = blob_of(stored);
    DATA_BLOB entropy = blob_of(purpose);
    DATA_BLOB made{};
    return take(CryptUnprotectData(&in, nullptr, &entropy, nullptr, nullptr, CRYPTPROTECT_UI_FORBIDDEN, &made), made,
                key, reason);
}

bool qor::secret::has_no_link(const std::string& path, std::string& reason) {
    for (const std::string& each : {path.substr(0, path.find_last_of("/\\")), path}) {
        const DWORD attributes = GetFileAttributesW(glue::wide_path(each).c_str());
        if (attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0) {
            reason = control::reason_of(control::private_file_fault::no_plain_file);
            return false;
        }
    }
    return true;
}
