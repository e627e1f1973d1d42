// path-entry add|remove user|machine FOLDER: puts a folder at the end of the search path of the user or of the machine,
// or takes it out. The installer and the uninstaller run it, because their own texts end after 1,024 characters, and a
// search path may be longer. Everything else in the search path stays as it is. The result is 0 or the system's number
// of the error.
#include <windows.h>

#include <shellapi.h>
#include <string>
#include <string_view>
#include <vector>

namespace {

constexpr wchar_t value_name[] = L"Path";

class environment_key {
public:
    explicit environment_key(bool is_machine) noexcept
        : m_result(RegCreateKeyExW(is_machine ? HKEY_LOCAL_MACHINE : HKEY_CURRENT_USER,
                                   is_machine ? L"SYSTEM\\CurrentControlSet\\Control\\Session Manager\\Environment"
                                              : L"Environment",
                                   0, nullptr, 0, KEY_QUERY_VALUE | KEY_SET_VALUE, nullptr, &m_key, nullptr)) {}
    environment_key(const environment_key&) = delete;
    environment_key& operator=(const environment_key&) = delete;
    ~environment_key() {
        if (m_key != nullptr)
            RegCloseKey(m_key);
    }

    LSTATUS result() const noexcept { return m_result; }

    // Without a path, the result is empty.
    LSTATUS read(std::wstring& path, DWORD& type) const {
        path.clear();
        type = REG_EXPAND_SZ;
        DWORD size = 0;
        LSTATUS result = RegQueryValueExW(m_key, value_name, nullptr, &type, nullptr, &size);
        if (result == ERROR_FILE_NOT_FOUND)
            return ERROR_SUCCESS;
        if (result == ERROR_SUCCESS && type != REG_SZ && type != REG_EXPAND_SZ)
            return ERROR_UNSUPPORTED_TYPE;
        path.append(size / sizeof(wchar_t) + 1, L'\0');
        if (result == ERROR_SUCCESS)
            result = RegQueryValueExW(m_key, value_name, nullptr, &type, reinterpret_cast<BYTE*>(path.data()), &size);
        path.erase(path.find(L'\0'));
        return result;
    }

    LSTATUS write(const std::wstring& path, DWORD type) const noexcept {
        if (path.empty())
            return RegDeleteValueW(m_key, value_name);
        return RegSetValueExW(m_key, value_name, 0, type, reinterpret_cast<const BYTE*>(path.c_str()),
                              static_cast<DWORD>((path.size() + 1) * sizeof(wchar_t)));
    }

private:
    HKEY m_key = nullptr;
    LSTATUS m_result;
};

// A semicolon within quotes is a part of a folder's name.
std::vector<std::wstring_view> split(std::wstring_view path) {
    std::vector<std::wstring_view> entries;
    bool is_quoted = false;
    std::size_t begin = 0;
    for (std::size_t i = 0; i < path.size(); ++i) {
        if (path[i] == L'"')
            is_quoted = !is_quoted;
        if (path[i] != L';' || is_quoted)
            continue;
        entries.push_back(path.substr(begin, i - begin));
        begin = i + 1;
    }
    entries.push_back(path.substr(begin));
    return entries;
}

bool is_same(std::wstring_view entry, std::wstring_view folder) {
    std::wstring bare;
    for (const wchar_t each : entry)
        if (each != L'"')
            bare += each;
    if (bare.ends_with(L'\\'))
        bare.pop_back();
    return CompareStringOrdinal(bare.data(), static_cast<int>(bare.size()), folder.data(),
                                static_cast<int>(folder.size()), TRUE) == CSTR_EQUAL;
}

std::wstring without(const std::wstring& path, const std::wstring& folder) {
    std::wstring kept;
    bool is_first = true;
    for (const std::wstring_view each : split(path)) {
        if (is_same(each, folder))
            continue;
        if (!is_first)
            kept += L';';
        kept += each;
        is_first = false;
    }
    return kept;
}

std::wstring with(const std::wstring& path, const std::wstring& folder) {
    for (const std::wstring_view each : split(path))
        if (is_same(each, folder))
            return path;
    std::wstring extended = path;
    if (!path.empty() && !path.ends_with(L';'))
        extended += L';';
    if (folder.find(L';') != folder.npos)
        extended.append(L"\"").append(folder).append(L"\"");
    else
        extended += folder;
    return extended;
}

// New processes of the running session get the new search path, too.
void announce() noexcept {
    DWORD_PTR ignored;
    SendMessageTimeoutW(HWND_BROADCAST, WM_SETTINGCHANGE, 0, reinterpret_cast<LPARAM>(L"Environment"), SMTO_ABORTIFHUNG,
                        5000, &ignored);
}

LSTATUS change(bool adds, bool is_machine, std::wstring folder) {
    if (folder.ends_with(L'\\'))
        folder.pop_back();
    const environment_key key(is_machine);
    if (key.result() != ERROR_SUCCESS)
        return key.result();
    std::wstring path;
    DWORD type;
    if (const LSTATUS result = key.read(path, type); result != ERROR_SUCCESS)
        return result;
    const std::wstring changed = adds ? with(path, folder) : without(path, folder);
    if (changed == path)
        return ERROR_SUCCESS;
    const LSTATUS result = key.write(changed, type);
    if (result == ERROR_SUCCESS)
        announce();
    return result;
}

} // namespace

int WINAPI wWinMain(HINSTANCE, HINSTANCE, wchar_t*, int) {
    int count = 0;
    wchar_t** const words = CommandLineToArgvW(GetCommandLineW(), &count);
    if (words == nullptr || count != 4)
        return ERROR_BAD_ARGUMENTS;
    const std::wstring_view action = words[1], whose = words[2];
    if ((action != L"add" && action != L"remove") || (whose != L"user" && whose != L"machine") || *words[3] == L'\0')
        return ERROR_BAD_ARGUMENTS;
    return static_cast<int>(change(action == L"add", whose == L"machine", words[3]));
}
