// The lines of a flood are private before they are in the file.
#include "platform/wide_windows.h"
#include "qor/glue/own_rights_windows.h"
#include "trace_flood.h"

#include <sddl.h>

using namespace qor::test;
using namespace qor::test::flood;

namespace {

// Returns the access control list as text.
std::string list_of(const std::string& path) {
    std::wstring wide;
    EXPECT_TRUE(qor::platform::to_wide_path(path, wide));
    DWORD size = 0;
    GetFileSecurityW(wide.c_str(), DACL_SECURITY_INFORMATION, nullptr, 0, &size);
    std::vector<unsigned char> descriptor(size);
    EXPECT_TRUE(GetFileSecurityW(wide.c_str(), DACL_SECURITY_INFORMATION, descriptor.data(), size, &size)) << path;
    wchar_t* text = nullptr;
    EXPECT_TRUE(ConvertSecurityDescriptorToStringSecurityDescriptorW(descriptor.data(), SDDL_REVISION_1,
                                                                     DACL_SECURITY_INFORMATION, &text, nullptr));
    const std::string list = qor::platform::from_wide(text != nullptr ? text : L"");
    LocalFree(text);
    return list;
}

const scene killed{"flood_private", [](const words& arguments) {
                       start(arguments[0]);
                       trace(lines);
                       kill_process();
                       return 0;
                   }};

} // namespace

TEST_F(trace_flood, keeps_its_rest_from_others) {
    const std::string expected = m_folder / "expected";
    std::wstring wide;
    ASSERT_TRUE(qor::platform::to_wide_path(expected, wide));
    qor::glue::own_rights rights;
    ASSERT_NE(rights.get(), nullptr);
    CloseHandle(CreateFileW(wide.c_str(), GENERIC_WRITE, 0, rights.get(), CREATE_NEW, 0, nullptr));
    ASSERT_NE(list_of(expected), list_of(m_folder.file("usual", "")));
    EXPECT_EQ(play(killed, {m_path}).code, killed_code);
    const words left = rests(m_folder.path());
    ASSERT_EQ(left.size(), 1u);
    EXPECT_EQ(list_of(left[0]), list_of(expected));
}
