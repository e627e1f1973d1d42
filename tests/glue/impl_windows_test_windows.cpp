// The parts of a Windows client other than the primitives. The linker directs these system calls here first.
#include "support/exhaustion.h"
#include "support/recording_table.h"

#include <gtest/gtest.h>

#include <windows.h>

#include <shellapi.h>

namespace {

using qor::test::assertion;
using qor::test::recording_table;
using qor::test::refuse_next_request;
using calls = std::vector<std::string>;

constexpr char windows_file[] = "qorcore/include/qor/glue/impl_windows";

wchar_t** s_split = nullptr;
HGLOBAL s_freed = nullptr;

} // namespace

extern "C" {

extern decltype(&CommandLineToArgvW) __real___imp_CommandLineToArgvW;
extern decltype(&GlobalFree) __real___imp_GlobalFree;

static wchar_t** WINAPI split(const wchar_t* line, int* count) {
    return s_split = qor::test::is_refused() ? nullptr : __real___imp_CommandLineToArgvW(line, count);
}

static HGLOBAL WINAPI free_noted(HGLOBAL memory) {
    s_freed = memory;
    return __real___imp_GlobalFree(memory);
}

extern decltype(&CommandLineToArgvW) __wrap___imp_CommandLineToArgvW;
extern decltype(&GlobalFree) __wrap___imp_GlobalFree;
decltype(&CommandLineToArgvW) __wrap___imp_CommandLineToArgvW = split;
decltype(&GlobalFree) __wrap___imp_GlobalFree = free_noted;

} // extern "C"

static_assert(sizeof(MEMORY_BASIC_INFORMATION) == 48 && offsetof(MEMORY_BASIC_INFORMATION, Protect) == 36);

TEST(windows_export, is_a_function_where_its_memory_is_executable) {
    static int number = 0;
    EXPECT_TRUE(qor::glue::is_function(reinterpret_cast<const void*>(&ExitProcess)));
    EXPECT_TRUE(qor::glue::is_function(reinterpret_cast<const void*>(&split)));
    EXPECT_FALSE(qor::glue::is_function(&number));
    EXPECT_FALSE(qor::glue::is_function(nullptr));
}

TEST(windows_process_args, are_the_words_without_the_program) {
    recording_table table;
    qorStringArray words;
    words.Append("before");
    qorwinSetupProcessArgs(words);
    // The test runner always passes arguments: at least a filter.
    ASSERT_EQ(words.GetCount(), static_cast<uint32>(__argc - 1));
    for (uint32 i = 0; i < words.GetCount(); ++i)
        EXPECT_STREQ(words[i], __argv[i + 1]);
    EXPECT_NE(s_split, nullptr);
    EXPECT_EQ(s_freed, s_split);
}

TEST(windows_process_args, are_none_where_the_line_cannot_be_split) {
    recording_table table;
    qorStringArray words;
    words.Append("before");
    table.take();
    refuse_next_request();
    qorwinSetupProcessArgs(words);
    EXPECT_EQ(table.take(),
              calls{assertion("argvec != NULL", "void qorwinSetupProcessArgs(qorStringArray&)", windows_file, 115)});
    EXPECT_TRUE(words.IsEmpty());
}

TEST(windows_instance_handle, is_set_once) {
    recording_table table;
    int first = 0;
    int second = 0;
    qorwinSetInstanceHandle(&first);
    EXPECT_EQ(static_cast<void*>(qor::glue::s_hinst), &first);
    EXPECT_EQ(table.take(), calls{});
    qorwinSetInstanceHandle(&second);
    EXPECT_EQ(table.take(),
              calls{assertion("s_hinst == NULL", "void qorwinSetInstanceHandle(void*)", windows_file, 26)});
    EXPECT_TRUE(table.unbound([&] { qorwinSetInstanceHandle(&first); }));
    EXPECT_EQ(table.take(), calls{});
    qor::glue::s_hinst = nullptr;
}
