// Checks of a client that only Windows needs.
//   client_windows words WORDS...   prints its arguments, one a line, as the framework gets them from the system
//   client_windows module PATH      binds as a client within that module would: from the module's folder
#include "qor/qor.h"

#include <cstdio>
#include <cstring>
#include <windows.h>

namespace {

int print_words() {
    qorStringArray words;
    words.Append("what was there before is gone");
    qorwinSetupProcessArgs(words);
    for (uint32 i = 0; i < words.GetCount(); ++i)
        std::puts(words[i]);
    return 0;
}

int bind_from_module(const wchar_t* path) {
    const HMODULE module = LoadLibraryExW(path, nullptr, DONT_RESOLVE_DLL_REFERENCES);
    qorwinSetInstanceHandle(module);
    qorStringArray words;
    words.Append("bound");
    wchar_t from[MAX_PATH];
    GetModuleFileNameW(GetModuleHandleW(L"libqor.dll"), from, MAX_PATH);
    qorString text;
    text.SetUCS2(reinterpret_cast<const uint16*>(from));
    text.Put(stdout, true);
    return module != nullptr ? 0 : 1;
}

} // namespace

int wmain(int argc, wchar_t** argv) {
    if (argc >= 2 && std::wcscmp(argv[1], L"words") == 0)
        return print_words();
    if (argc == 3 && std::wcscmp(argv[1], L"module") == 0)
        return bind_from_module(argv[2]);
    return 2;
}
