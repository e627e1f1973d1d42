// Pipes, devices and other kinds in place of each file that the library opens by itself. A reader that waited for one
// of them would never end.
#include "catalog/catalog_file.h"
#include "folder/user_dirs.h"
#include "platform/raw_file.h"
#include "platform/whole_file.h"
#include "qor/glue/impl_posix.h"
#include "serial/fake_host.h"
#include "serial/lock_files.h"
#include "serial/sysfs_files.h"
#include "simd/cache_files.h"
#include "support/strange_files_posix.h"
#include "system/linux_host.h"
#include "time/zone_name.h"

#include <sys/sysmacros.h>

namespace {

using qor::platform::raw_file;
using qor::test::strange_file;
using qor::test::strange_kinds;

class strange_files : public testing::Test {
protected:
    // Calls `check` with each kind in place of the file.
    template <class CHECK>
    void with_each(const std::string& path, std::string_view text, CHECK check) {
        for (const char* const kind : strange_kinds) {
            SCOPED_TRACE(kind);
            const strange_file strange(kind, path, text);
            check();
        }
    }

    qor::test::temp_folder m_folder;
    const std::string m_path = m_folder / "file";
};

} // namespace

TEST_F(strange_files, are_told_by_their_kind) {
    const auto reason = [&](const char* kind) {
        const strange_file strange(kind, m_path);
        return raw_file().open(m_path.c_str(), raw_file::access::regular);
    };
    for (const char* const kind : {"pipe", "pipe with text", "device", "socket"})
        EXPECT_EQ(reason(kind), raw_file::not_regular) << kind;
    EXPECT_EQ(reason("folder"), EISDIR);
    EXPECT_EQ(reason("link to itself"), ELOOP);
    EXPECT_TRUE(raw_file::is_missing(reason("nothing")));
    const std::string below = m_folder.file("plain", "") + "/below";
    EXPECT_TRUE(raw_file::is_missing(raw_file().open(below.c_str(), raw_file::access::regular)));
    EXPECT_EQ(raw_file().open((m_folder / "plain").c_str(), raw_file::access::regular), 0);
    EXPECT_EQ(raw_file().open("/proc/self/status", raw_file::access::regular), 0);
}

// A file that a user names may be a pipe, and the reader then waits for its text.
TEST_F(strange_files, may_be_named_by_the_user) {
    const strange_file pipe("pipe with text", m_path, "line\n");
    raw_file file;
    ASSERT_EQ(file.open(m_path.c_str(), raw_file::access::read), 0);
    char text[8];
    std::size_t count = 0;
    EXPECT_EQ(file.read(text, sizeof text, &count), 0);
    EXPECT_EQ(std::string_view(text, count), "line\n");
}

TEST_F(strange_files, are_not_read_as_a_whole) {
    with_each(m_path, "text\n", [&] {
        std::string text;
        EXPECT_FALSE(qor::platform::read_whole(m_path.c_str(), 1000, text));
        EXPECT_EQ(text, "");
    });
}

TEST_F(strange_files, are_no_libraries) {
    with_each(m_path,
              "\x7f"
              "ELF",
              [&] { EXPECT_FALSE(qor::glue::is_whole(m_path.c_str())); });
}

TEST_F(strange_files, are_no_catalogs) {
    constexpr qor::catalog::message english[] = {{1, "one"}};
    with_each(m_path, "1 eins\n", [&] { EXPECT_TRUE(qor::catalog::load_catalog(m_path, english).empty()); });
}

TEST_F(strange_files, are_no_time_zones) {
    with_each(m_path, "TZif2", [&] { EXPECT_FALSE(qor::time::is_zone(m_path.c_str())); });
}

TEST_F(strange_files, name_no_folders) {
    with_each(m_path, "XDG_MUSIC_DIR=\"/music\"\n",
              [&] { EXPECT_EQ(qor::folder::user_dir(m_path, "MUSIC", "/home/ada"), "/home/ada"); });
}

TEST_F(strange_files, tell_nothing_of_the_host) {
    qor::system::linux_host host;
    host.root = m_folder.path();
    with_each(m_path, "NAME=x\n", [&] { EXPECT_EQ(host.read("/file"), ""); });
}

TEST_F(strange_files, tell_nothing_of_the_caches) {
    std::filesystem::create_directory(m_folder / "index0");
    m_folder.file("index0/type", "Data\n");
    m_folder.file("index0/size", "32K\n");
    with_each(m_folder / "index0/level", "1\n",
              [&] { EXPECT_EQ(qor::simd::read_cache_files(m_folder.path()).first_data, 0u); });
    m_folder.file("index0/level", "1\n");
    EXPECT_EQ(qor::simd::read_cache_files(m_folder.path()).first_data, 32u << 10);
}

TEST_F(strange_files, are_no_attributes_of_a_port) {
    with_each(m_path, "text\n", [&] {
        EXPECT_EQ(qor::serial::read_attribute(m_path), "");
        EXPECT_TRUE(qor::serial::read_lines(m_path).empty());
    });
    EXPECT_EQ(qor::serial::read_attribute(m_folder.file("plain", " one\x1b \ntwo\n")), "one\x1b");
    EXPECT_EQ(qor::serial::read_lines(m_folder / "plain"), (std::vector<std::string>{" one\x1b ", "two"}));
}

// Their owner has locked the port in a way that names no process. A dangling link counts as no file.
TEST_F(strange_files, lock_a_port_for_somebody) {
    const qor::test::fake_host host;
    int holder = 1;
    std::string file;
    for (const char* const name : {"LCK..ttyS0", "LCK.004.064"})
        with_each(host.on().locks + '/' + name, std::to_string(getpid()), [&] {
            EXPECT_EQ(qor::serial::find_lock(host.on(), "ttyS0", makedev(4, 64), holder, file),
                      qor::serial::lock::somebody);
            EXPECT_EQ(file, host.on().locks + '/' + name);
            EXPECT_EQ(holder, 0);
        });
    std::filesystem::create_symlink("nothing", host.on().locks + "/LCK..ttyS0");
    EXPECT_EQ(qor::serial::find_lock(host.on(), "ttyS0", makedev(4, 64), holder, file), qor::serial::lock::none);
    EXPECT_EQ(qor::serial::find_lock(host.on(), std::string(300, 'x'), makedev(5, 64), holder, file),
              qor::serial::lock::none);
}
