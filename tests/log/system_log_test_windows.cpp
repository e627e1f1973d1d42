// The texts of the events, as a viewer gets them out of the library's file.
#include <gtest/gtest.h>

#include <string>
#include <windows.h>

namespace {

std::wstring shown(HMODULE library, DWORD number) {
    wchar_t text[] = L"a text";
    wchar_t fields[] = L"A_FIELD=\"%1\"";
    DWORD_PTR inserts[] = {reinterpret_cast<DWORD_PTR>(text), reinterpret_cast<DWORD_PTR>(fields)};
    wchar_t out[100] = L"";
    const DWORD length = FormatMessageW(FORMAT_MESSAGE_FROM_HMODULE | FORMAT_MESSAGE_ARGUMENT_ARRAY, library, number, 0,
                                        out, 100, reinterpret_cast<va_list*>(inserts));
    return {out, length};
}

} // namespace

TEST(event_texts, are_in_the_library) {
    const HMODULE library = LoadLibraryExW(L"libqor.dll", nullptr, LOAD_LIBRARY_AS_DATAFILE);
    ASSERT_NE(library, nullptr);
    for (const DWORD number : {0xc0000001u, 0x80000002u, 0x40000003u})
        EXPECT_EQ(shown(library, number), L"a text\r\n\r\nA_FIELD=\"%1\"\r\n") << std::hex << number;
    EXPECT_EQ(shown(library, 4), L"");
    FreeLibrary(library);
}
