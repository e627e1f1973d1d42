#include "support/scenes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <windows.h>

namespace {

using qor::test::words;

std::wstring widen(const std::string& text) {
    std::wstring result(text.size(), L'\0');
    result.resize(static_cast<std::size_t>(MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()),
                                                               result.data(), static_cast<int>(result.size()))));
    return result;
}

// Quotes a word so that the C library's start-up code restores it.
std::wstring quoted(const std::string& word) {
    std::string result = "\"";
    std::size_t backslashes = 0;
    for (const char c : word) {
        if (c == '"')
            result.append(backslashes + 1, '\\');
        backslashes = c == '\\' ? backslashes + 1 : 0;
        result += c;
    }
    result.append(backslashes, '\\');
    return widen(result + '"');
}

bool is_ours(const std::wstring& setting) {
    constexpr std::wstring_view names[] = {L"QOR_", L"LANGUAGE=", L"LANG=", L"LC_ALL=", L"LC_MESSAGES="};
    return std::ranges::any_of(names, [&](std::wstring_view name) { return setting.starts_with(name); });
}

// The system itself needs much of its environment. The variables must be sorted.
std::wstring make_environment(const words& settings) {
    std::map<std::wstring, std::wstring> values{{L"LC_MESSAGES", L"C"}};
    wchar_t* const present = GetEnvironmentStringsW();
    for (const wchar_t* at = present; *at != L'\0'; at += std::wcslen(at) + 1) {
        const std::wstring setting = at;
        if (!is_ours(setting))
            values[setting.substr(0, setting.find(L'=', 1))] = setting.substr(setting.find(L'=', 1) + 1);
    }
    FreeEnvironmentStringsW(present);
    for (const std::string& setting : settings)
        values[widen(setting.substr(0, setting.find('=')))] = widen(setting.substr(setting.find('=') + 1));
    std::wstring result;
    for (const auto& [name, value] : values)
        result += name + L'=' + value + L'\0';
    return result + L'\0';
}

HANDLE open_inherited(const std::wstring& path, DWORD access, DWORD how) {
    SECURITY_ATTRIBUTES inherited{sizeof inherited, nullptr, TRUE};
    return CreateFileW(path.c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE, &inherited, how, 0, nullptr);
}

// Output goes to files, not pipes, so that a program never waits for its reader.
class output {
public:
    output() {
        wchar_t folder[MAX_PATH];
        wchar_t path[MAX_PATH];
        GetTempPathW(MAX_PATH, folder);
        GetTempFileNameW(folder, L"qor", 0, path);
        m_path = path;
        m_handle = open_inherited(m_path, GENERIC_WRITE, CREATE_ALWAYS);
    }
    output(const output&) = delete;
    output& operator=(const output&) = delete;
    ~output() {
        CloseHandle(m_handle);
        std::filesystem::remove(m_path);
    }
    HANDLE handle() const { return m_handle; }
    std::string text() const {
        std::ifstream file(std::filesystem::path(m_path), std::ios::binary);
        std::string result{std::istreambuf_iterator<char>(file), {}};
        for (std::size_t at = 0; (at = result.find("\r\n", at)) != std::string::npos; ++at)
            result.erase(at, 1);
        return result;
    }

private:
    std::wstring m_path;
    HANDLE m_handle;
};

} // namespace

qor::test::ending qor::test::run(const words& command, const words& environment) {
    std::wstring line;
    for (const std::string& word : command)
        line += (line.empty() ? L"" : L" ") + quoted(word);
    std::wstring settings = make_environment(environment);
    const output out;
    const output err;
    const HANDLE in = open_inherited(L"NUL", GENERIC_READ, OPEN_EXISTING);
    STARTUPINFOW start{};
    start.cb = sizeof start;
    start.dwFlags = STARTF_USESTDHANDLES;
    start.hStdInput = in;
    start.hStdOutput = out.handle();
    start.hStdError = err.handle();
    PROCESS_INFORMATION child{};
    const BOOL started = CreateProcessW(nullptr, line.data(), nullptr, nullptr, TRUE, CREATE_UNICODE_ENVIRONMENT,
                                        settings.data(), nullptr, &start, &child);
    CloseHandle(in);
    if (!started) {
        ADD_FAILURE() << command.front() << ": error " << GetLastError();
        return {-1, {}, {}};
    }
    WaitForSingleObject(child.hProcess, INFINITE);
    DWORD code = 0;
    GetExitCodeProcess(child.hProcess, &code);
    CloseHandle(child.hThread);
    CloseHandle(child.hProcess);
    return {static_cast<int>(code), out.text(), err.text()};
}

std::string qor::test::this_program() {
    char self[MAX_PATH];
    return {self, GetModuleFileNameA(nullptr, self, sizeof self)};
}
