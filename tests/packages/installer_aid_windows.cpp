// What the tests of the installer cannot do from outside of Windows:
//
//     installer_aid limited PROGRAM WORDS…   starts the program as a user who is no administrator; ends with its code
//     installer_aid hold FILE                has the file open, alone, until standard input ends
#include <cstdio>
#include <cwchar>
#include <windows.h>

namespace {

int failed(const char* operation) {
    std::fprintf(stderr, "installer_aid: %s: error %lu\n", operation, GetLastError());
    return 99;
}

// The rest of the own command line behind so many words without quotes.
wchar_t* rest_behind(unsigned words) {
    wchar_t* rest = GetCommandLineW();
    bool is_quoted = false;
    for (; *rest != L'\0' && words != 0; ++rest) {
        if (*rest == L'"')
            is_quoted = !is_quoted;
        if (*rest == L' ' && !is_quoted)
            --words;
    }
    return rest;
}

int run_limited() {
    HANDLE own, limited;
    BYTE administrators[SECURITY_MAX_SID_SIZE];
    DWORD size = sizeof administrators;
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_ALL_ACCESS, &own) ||
        !CreateWellKnownSid(WinBuiltinAdministratorsSid, nullptr, administrators, &size))
        return failed("token");
    SID_AND_ATTRIBUTES without{administrators, 0};
    if (!CreateRestrictedToken(own, 0, 1, &without, 0, nullptr, 0, nullptr, &limited))
        return failed("CreateRestrictedToken");
    STARTUPINFOW about{};
    about.cb = sizeof about;
    PROCESS_INFORMATION started;
    if (!CreateProcessAsUserW(limited, nullptr, rest_behind(2), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &about,
                              &started))
        return failed("CreateProcessAsUserW");
    DWORD code = 99;
    WaitForSingleObject(started.hProcess, INFINITE);
    GetExitCodeProcess(started.hProcess, &code);
    return static_cast<int>(code);
}

int hold(const wchar_t* path) {
    const HANDLE file = CreateFileW(path, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return failed("CreateFileW");
    std::puts("held");
    std::fflush(stdout);
    while (std::getchar() != EOF) {
    }
    return 0;
}

} // namespace

int wmain(int count, wchar_t** words) {
    if (count >= 3 && std::wcscmp(words[1], L"limited") == 0)
        return run_limited();
    if (count == 3 && std::wcscmp(words[1], L"hold") == 0)
        return hold(words[2]);
    return 98;
}
