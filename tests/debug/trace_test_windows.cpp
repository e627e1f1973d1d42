// Properties of Windows that a trace leaves unchanged.
#include "qor/qor.h"
#include "support/temp_folder.h"

#include <gtest/gtest.h>

#include <windows.h>

TEST(windows_trace, the_systems_last_error_is_left_alone) {
    const qor::test::temp_folder folder;
    const uint32 code = qorDebugAllocateCode("test.windows_trace");
    qorDebugEnableCode("test.windows_trace", true);
    ASSERT_TRUE(qorDebugAttachFile((folder / "trace").c_str()));
    SetLastError(4711);
    {
        const qorDebugSeq scope(code, "Scope %d", 1);
        qorDebug(code, "%s", "line");
    }
    EXPECT_EQ(GetLastError(), 4711u);
    EXPECT_TRUE(qorDebugAttachFile(nullptr));
    EXPECT_NE(qor::test::read_file(folder / "trace").find("line\n"), std::string::npos);
    EXPECT_EQ(qor::test::read_file(folder / "trace").find('\r'), std::string::npos);
}
