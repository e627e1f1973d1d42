// The named folders on Windows: the known folders of the shell. Its library costs a process time and memory, so it is
// only loaded on first use.
#include "folder/folder.h"

#include "error/error.h"
#include "platform/system_library_windows.h"
#include "platform/wide_windows.h"

#include <initguid.h>
#include <knownfolders.h>
#include <shlobj.h>
#include <windows.h>

namespace {

struct place {
    const KNOWNFOLDERID* known;
    const char* below; // a path below it, or empty
};

// In the order of the ids, up to the framework's own. No known folder means the folder of temporary files.
const place places[] = {
    {&FOLDERID_Profile, ""},
    {&FOLDERID_Desktop, ""},
    {&FOLDERID_Documents, ""},
    {&FOLDERID_Downloads, ""},
    {&FOLDERID_Music, ""},
    {&FOLDERID_Pictures, ""},
    {&FOLDERID_Videos, ""},
    {&FOLDERID_Public, ""},
    {&FOLDERID_Templates, ""},
    {&FOLDERID_RoamingAppData, ""},
    {&FOLDERID_LocalAppData, ""},
    {&FOLDERID_LocalAppData, ""},
    {&FOLDERID_LocalAppData, ""},
    {nullptr, ""},
    {nullptr, ""},
    {&FOLDERID_LocalAppData, ""},
    {&FOLDERID_LocalAppData, "\\Microsoft\\Windows\\Fonts"},
    {&FOLDERID_ProgramData, ""},
    {&FOLDERID_ProgramData, ""},
    {&FOLDERID_ProgramData, ""},
    {&FOLDERID_ProgramData, ""},
    {&FOLDERID_Windows, "\\Logs"},
    {&FOLDERID_Windows, "\\Temp"},
    {&FOLDERID_ProgramFiles, ""},
    {&FOLDERID_System, ""},
};

const place own_user_configuration = {&FOLDERID_RoamingAppData, "\\qor"};
const place own_system_configuration = {&FOLDERID_ProgramData, "\\qor"};

const place& place_of(qorFolderId id) {
    return id == qorFolder_qor_user_configuration     ? own_user_configuration
           : id == qorFolder_qor_system_configuration ? own_system_configuration
                                                      : places[id];
}

// Both functions return the system's error code, or 0 for success.
DWORD known_folder(const KNOWNFOLDERID& known, std::string& path) {
    auto* const ask =
        qor::platform::find_function<decltype(SHGetKnownFolderPath)>(L"shell32.dll", "SHGetKnownFolderPath");
    auto* const release = qor::platform::find_function<decltype(CoTaskMemFree)>(L"ole32.dll", "CoTaskMemFree");
    if (ask == nullptr || release == nullptr)
        return GetLastError();
    wchar_t* found = nullptr;
    // The flag also returns folders that do not exist yet, without creating them.
    const HRESULT result = ask(known, KF_FLAG_DONT_VERIFY, nullptr, &found);
    if (SUCCEEDED(result))
        path = qor::platform::from_wide(found);
    release(found);
    return SUCCEEDED(result) ? 0 : static_cast<DWORD>(HRESULT_CODE(result));
}

DWORD temporary_folder(std::string& path) {
    wchar_t found[MAX_PATH + 1];
    const DWORD length = GetTempPathW(MAX_PATH + 1, found);
    if (length == 0 || length > MAX_PATH)
        return length == 0 ? GetLastError() : ERROR_BUFFER_OVERFLOW;
    path = qor::platform::from_wide({found, length});
    return 0;
}

} // namespace

std::string qor::folder::system_path(qorFolderId id) {
    const place& wanted = place_of(id);
    std::string path;
    const DWORD code = wanted.known != nullptr ? known_folder(*wanted.known, path) : temporary_folder(path);
    if (code != 0) {
        error::set(qorError_no_such_folder, {tag(id), error::system_reason(static_cast<int>(code)).c_str()});
        return {};
    }
    return clean(path + wanted.below);
}

// No path is made absolute here, because the system's paths are.
std::string qor::folder::clean(std::string_view path) {
    std::string cleaned(path);
    while (cleaned.size() > 3 && (cleaned.back() == '\\' || cleaned.back() == '/'))
        cleaned.pop_back();
    return cleaned;
}

// "\x" lies on the current drive, and "C:x" in the current folder of that drive.
bool qor::folder::is_absolute(std::string_view path) noexcept {
    const auto is_separator = [&](std::size_t at) { return path.size() > at && (path[at] == '\\' || path[at] == '/'); };
    return is_separator(0) ? is_separator(1) : path.size() > 2 && path[1] == ':' && is_separator(2);
}

const int qor::folder::is_no_folder = ERROR_DIRECTORY;
constinit const std::string_view qor::folder::separators = "\\/";
