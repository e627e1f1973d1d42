// Allocations of a client that does not give their source place: they are recorded with this file's name, without its
// extension.
#include "support/exhaustion.h"
#include "support/recording_table.h"

#include <gtest/gtest.h>

#include <string_view>
#include <thread>
#include <vector>

namespace {

using qor::glue::path_without_extension;
using qor::test::recording_table;
using calls = std::vector<std::string>;

// Returns the recorded form of a place in this file.
std::string at(int line) {
    const std::string_view file = __FILE__;
    return std::string(file.substr(0, file.rfind(".cpp"))) + ", " + std::to_string(line);
}

class object : public qorRefObject {
public:
    object() : qorRefObject("test.object") {}
};

class component : public qorComponent2 {
public:
    component() : qorComponent2("test.component") {}
};

class failing : public qorRefObject {
public:
    failing() : qorRefObject("test.failing") { throw 1; }
};

TEST(source_place, is_noted_by_the_memory_operations) {
    recording_table table;
    const int first = __LINE__;
    void* block = qor_do_malloc(0, 10);
    block = qor_do_realloc(block, 20);
    void* const copy = qor_do_memdup(block, 5);
    qor_do_free(copy);
    qor_do_free(block);
    block = qor_do_malloc(64, 30, false);
    qor_do_free(block);
    EXPECT_EQ(
        table.take(),
        (calls{"qor_do_malloc(0, 10, true, " + at(first + 1) + ") = #1",
               "qor_do_realloc(#1, 20, " + at(first + 2) + ") = #2", "qor_do_memdup(#2, 5, " + at(first + 3) + ") = #3",
               "qor_do_free(#3, " + at(first + 4) + ")", "qor_do_free(#2, " + at(first + 5) + ")",
               "qor_do_malloc(64, 30, false, " + at(first + 6) + ") = #4", "qor_do_free(#4, " + at(first + 7) + ")"}));
}

// Operations that the table does not record by itself.
std::string s_place;

TEST(source_place, is_noted_by_the_others) {
    recording_table table;
    table.rows.qor_do_strdup = [](const char* text, const char* file, int line) noexcept {
        s_place = std::string(file) + ", " + std::to_string(line);
        return qor::glue::qor_do_strndup(text, 1000, file, line);
    };
    const int first = __LINE__;
    char* const text = qor_do_strdup("text");
    EXPECT_EQ(s_place, at(first + 1));
    qor_do_free(text);
    table.rows.qor_do_strndup = [](const char*, uint64, const char* file, int line) noexcept {
        s_place = std::string(file) + ", " + std::to_string(line);
        return static_cast<char*>(nullptr);
    };
    EXPECT_THROW((void)qor_do_strndup("text", 2), std::bad_alloc);
    EXPECT_EQ(s_place, at(__LINE__ - 1));
    table.rows.qor_do_huge_alloc = [](uint64, const char* file, int line) noexcept {
        s_place = std::string(file) + ", " + std::to_string(line);
        return static_cast<void*>(nullptr);
    };
    EXPECT_THROW((void)qor_do_huge_alloc(1), std::bad_alloc);
    EXPECT_EQ(s_place, at(__LINE__ - 1));
    table.rows.qor_do_huge_free = [](void*, const char* file, int line) noexcept {
        s_place = std::string(file) + ", " + std::to_string(line);
    };
    qor_do_huge_free(nullptr);
    EXPECT_EQ(s_place, at(__LINE__ - 1));
}

TEST(source_place, is_noted_by_new) {
    recording_table table;
    const int first = __LINE__;
    object* const made = QOR_NEW object;
    made->Release();
    EXPECT_EQ(table.take(), (calls{"qor_do_new(" + std::to_string(sizeof(object)) + ", " + at(first + 1) + ") = #1",
                                   "qorAnnounceObject(test.object)", "qor_do_delete(#1)"}));
    component* const other = QOR_NEW component;
    other->object_Release();
    EXPECT_EQ(table.take().front(),
              "qor_do_new(" + std::to_string(sizeof(component)) + ", " + at(__LINE__ - 3) + ") = #2");
    EXPECT_THROW(QOR_NEW failing, int);
    EXPECT_EQ(table.take().back(), "qor_do_delete(#3)");
    table.exhausted = true;
    EXPECT_THROW(QOR_NEW object, std::bad_alloc);
}

TEST(source_place, has_no_extension) {
    EXPECT_STREQ(path_without_extension("demo/main.cpp"), "demo/main");
    EXPECT_STREQ(path_without_extension("demo\\main.cpp"), "demo\\main");
    EXPECT_STREQ(path_without_extension("main.test.cc"), "main.test");
    EXPECT_STREQ(path_without_extension("v1.2/main"), "v1.2/main");
    EXPECT_STREQ(path_without_extension("v1.2\\main"), "v1.2\\main");
    EXPECT_STREQ(path_without_extension("demo/.hidden"), "demo/.hidden");
    EXPECT_STREQ(path_without_extension("main"), "main");
    EXPECT_STREQ(path_without_extension(""), "");
}

TEST(source_place, is_kept_once_for_each_file) {
    static constexpr char path[] = "demo/kept.cpp";
    EXPECT_EQ(path_without_extension(path), path_without_extension(path));

    // More files than buckets; all threads look up each of them.
    std::vector<std::string> paths;
    for (int i = 0; i < 1000; ++i)
        paths.push_back("demo/file" + std::to_string(i) + ".cpp");
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&paths] {
            for (const std::string& each : paths)
                EXPECT_EQ(std::string(path_without_extension(each.c_str())) + ".cpp", each);
        });
    for (std::thread& thread : threads)
        thread.join();
    for (const std::string& each : paths)
        EXPECT_EQ(path_without_extension(each.c_str()), path_without_extension(each.c_str()));
}

TEST(source_place, keeps_its_extension_without_memory) {
    static constexpr char path[] = "demo/exhausted.cpp";
    qor::test::refuse_next_request();
    EXPECT_STREQ(path_without_extension(path), path);
    EXPECT_STREQ(path_without_extension(path), "demo/exhausted");
}

} // namespace
