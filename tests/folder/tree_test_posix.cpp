// Folders on POSIX: links, kinds, names that are no UTF-8, depths and lengths at their limits, and others that change a
// tree while it is deleted.
#include "qor/qor.h"
#include "support/last_error.h"
#include "support/temp_folder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <fcntl.h>
#include <filesystem>
#include <set>
#include <string>
#include <string_view>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;

namespace {

using qor::test::last_error;

// Creates one name of each kind.
void make_kinds(const qor::test::temp_folder& folder) {
    folder.file("file", "four");
    fs::create_directory(folder / "folder");
    fs::create_symlink("file", folder / "link");
    fs::create_symlink("nowhere", folder / "dangling");
    EXPECT_EQ(mkfifo((folder / "pipe").c_str(), 0600), 0);
    const int made = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{AF_UNIX, {}};
    (folder / "socket").copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(bind(made, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    close(made);
}

// Root may read everything, so a test of rights runs as a user who has none, and owns this folder.
class usual_rights {
public:
    explicit usual_rights(const std::string& folder) {
        if (geteuid() == 0) {
            EXPECT_EQ(chown(folder.c_str(), nobody, static_cast<gid_t>(-1)), 0);
            EXPECT_EQ(seteuid(nobody), 0);
        }
    }
    usual_rights(const usual_rights&) = delete;
    usual_rights& operator=(const usual_rights&) = delete;
    ~usual_rights() { EXPECT_TRUE(getuid() != 0 || seteuid(0) == 0); }

private:
    static constexpr uid_t nobody = 65534;
};

TEST(posix_folders, tell_all_kinds) {
    const qor::test::temp_folder folder;
    make_kinds(folder);
    const std::pair<const char*, qorFileKind> kinds[] = {
        {"file", qorFileKind::file},     {"folder", qorFileKind::folder}, {"link", qorFileKind::link},
        {"dangling", qorFileKind::link}, {"pipe", qorFileKind::pipe},     {"socket", qorFileKind::socket},
    };
    zetSmartPointer<IQORFolderContents> contents;
    ASSERT_TRUE(qorGetFolderContents(folder.path().c_str(), contents.Out())) << last_error();
    EXPECT_EQ(contents->GetCount(), std::size(kinds));
    for (const auto& [name, kind] : kinds) {
        const auto entries = contents->Entries();
        const auto found = std::ranges::find(entries, name, &qorFolderEntry::Name);
        ASSERT_NE(found, entries.end()) << name;
        struct stat status;
        ASSERT_EQ(lstat((folder / name).c_str(), &status), 0);
        EXPECT_EQ(found->kind, kind) << name;
        const bool has_size = kind == qorFileKind::file || kind == qorFileKind::link;
        EXPECT_EQ(found->size, has_size ? static_cast<uint64>(status.st_size) : 0) << name;
        const auto info = qorGetFileInfoEx((folder / name).c_str(), false);
        ASSERT_TRUE(info) << last_error();
        EXPECT_EQ(info->kind, kind) << name;
        EXPECT_EQ(info->rights, status.st_mode & 07777u);
        EXPECT_EQ(info->links, status.st_nlink);
        EXPECT_EQ(info->id[0], status.st_ino);
        EXPECT_EQ(info->owner, status.st_uid);
        EXPECT_EQ(info->group, status.st_gid);
        EXPECT_EQ(info->allocated, static_cast<uint64>(status.st_blocks) * 512);
        constexpr uint64 to_1970 = 11'644'473'600;
        EXPECT_EQ(info->modified, (status.st_mtim.tv_sec + to_1970) * qorTicksPerSecond + status.st_mtim.tv_nsec / 100);
        EXPECT_EQ(info->modified_rest, status.st_mtim.tv_nsec % 100);
        EXPECT_EQ(info->changed, (status.st_ctim.tv_sec + to_1970) * qorTicksPerSecond + status.st_ctim.tv_nsec / 100);
        EXPECT_EQ(info->changed_rest, status.st_ctim.tv_nsec % 100);
        EXPECT_EQ(found->modified, info->modified);
    }
    EXPECT_STREQ(qorGetFileInfoEx((folder / "link").c_str(), false)->target, "file");
    EXPECT_STREQ(qorGetFileInfoEx((folder / "link").c_str())->target, "");
    EXPECT_EQ(qorGetFileInfo((folder / "link").c_str())->kind, qorFileKind::file);
    EXPECT_FALSE(qorGetFileInfo((folder / "dangling").c_str()).has_value());
    EXPECT_TRUE(qorFileExists((folder / "pipe").c_str()));
    EXPECT_FALSE(qorFileExists((folder / "dangling").c_str()));
    EXPECT_EQ(qorGetFileInfo("/dev/null")->kind, qorFileKind::character_device);
}

TEST(posix_folders, keep_times_to_the_nanosecond) {
    const qor::test::temp_folder folder;
    const std::string path = folder.file("file", "");
    const timespec times[][2] = {{{1, 123'456'789}, {1'700'000'000, 987'654'321}}, {{0, 1}, {-1, 999'999'999}}};
    for (const auto& each : times) {
        ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), each, 0), 0);
        struct stat kept; // the file system may be a coarse one
        ASSERT_EQ(stat(path.c_str(), &kept), 0);
        const auto info = qorGetFileInfoEx(path.c_str());
        ASSERT_TRUE(info);
        const auto nanoseconds = [](uint64 ticks, uint8 rest) {
            return (static_cast<int64>(ticks) - 116'444'736'000'000'000) * 100 + rest;
        };
        EXPECT_EQ(nanoseconds(info->accessed, info->accessed_rest),
                  kept.st_atim.tv_sec * 1'000'000'000 + kept.st_atim.tv_nsec);
        EXPECT_EQ(nanoseconds(info->modified, info->modified_rest),
                  kept.st_mtim.tv_sec * 1'000'000'000 + kept.st_mtim.tv_nsec);
    }
}

// Every byte but NUL and '/' may stand in a name.
TEST(posix_folders, names_that_are_no_utf_8_survive) {
    const qor::test::temp_folder folder;
    for (int byte = 1; byte < 256; ++byte)
        if (byte != '/') {
            const std::string path = folder / ("x" + std::string(1, static_cast<char>(byte)));
            ASSERT_TRUE(qorCreateDirectory(path.c_str())) << byte << last_error();
        }
    zetSmartPointer<IQORFolderContents> contents;
    ASSERT_TRUE(qorGetFolderContents(folder.path().c_str(), contents.Out()));
    EXPECT_EQ(contents->GetCount(), 254u);
    for (const qorFolderEntry& each : contents->Entries()) {
        const std::string path = folder / each.Name();
        EXPECT_TRUE(qorRenameFile(path.c_str(), (path + "\xff").c_str())) << last_error();
        EXPECT_TRUE(qorDeleteDirectoryAndContents((path + "\xff").c_str())) << last_error();
    }
    EXPECT_TRUE(fs::is_empty(folder.path()));
}

// The names of this folder take several of the kernel's blocks.
TEST(posix_folders, large_ones_are_listed_and_deleted_whole) {
    const qor::test::temp_folder folder;
    constexpr int count = 5000;
    const std::string begin = std::string(100, 'n') + ' ';
    ASSERT_TRUE(qorCreateDirectory((folder / "tree").c_str()));
    for (int i = 0; i < count; ++i)
        folder.file("tree/" + begin + std::to_string(i), "");
    zetSmartPointer<IQORFolderContents> contents;
    ASSERT_TRUE(qorGetFolderContents((folder / "tree").c_str(), contents.Out())) << last_error();
    std::set<std::string_view> names;
    for (const qorFolderEntry& each : contents->Entries())
        names.insert(each.Name());
    EXPECT_EQ(names.size(), std::size_t{count});
    EXPECT_EQ(contents->GetCount(), names.size());
    for (int i = 0; i < count; ++i)
        EXPECT_TRUE(names.contains(begin + std::to_string(i))) << i;
    EXPECT_TRUE(qorDeleteDirectoryAndContents((folder / "tree").c_str())) << last_error();
    EXPECT_TRUE(fs::is_empty(folder.path()));
}

TEST(posix_folders, longest_names_and_paths) {
    const qor::test::temp_folder folder;
    const std::string name(255, 'n');
    EXPECT_TRUE(qorCreateDirectory((folder / name).c_str())) << last_error();
    EXPECT_FALSE(qorCreateDirectory((folder / (name + "n")).c_str()));
    EXPECT_TRUE(last_error().ends_with(": File name too long.")) << last_error();
    std::string path = folder.path();
    while (path.size() < 4095 - 256)
        path += '/' + name;
    path += '/';
    path.append(4095 - path.size(), 'l');
    ASSERT_EQ(path.size(), 4095u);
    EXPECT_TRUE(qorCreateDirectoryPath(path.c_str())) << last_error();
    EXPECT_TRUE(qorDirectoryExists(path.c_str()));
    zetSmartPointer<IQORFolderContents> contents;
    EXPECT_TRUE(qorGetFolderContents(path.c_str(), contents.Out())) << last_error();
    EXPECT_FALSE(qorCreateDirectoryPath((path + "l").c_str()));
    EXPECT_TRUE(last_error().ends_with(": File name too long.")) << last_error();
    EXPECT_TRUE(qorDeleteDirectoryAndContents(path.c_str())) << last_error();
    EXPECT_TRUE(qorDeleteDirectoryAndContents((folder / name).c_str())) << last_error();
    EXPECT_TRUE(fs::is_empty(folder.path()));
}

// Deeper than any path can name, with few descriptors.
TEST(posix_folders, are_deleted_at_any_depth) {
    const qor::test::temp_folder folder;
    fs::create_directory(folder / "tree");
    int at = open((folder / "tree").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    for (int depth = 0; depth < 6000; ++depth) {
        ASSERT_EQ(mkdirat(at, "deeper", 0700), 0);
        const int file = openat(at, "file", O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        close(file);
        const int next = openat(at, "deeper", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        close(at);
        at = next;
    }
    close(at);
    rlimit before;
    getrlimit(RLIMIT_NOFILE, &before);
    const int open_now = open("/dev/null", O_RDONLY | O_CLOEXEC);
    const rlimit few{static_cast<rlim_t>(open_now) + 24, before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &few);
    EXPECT_TRUE(qorDeleteDirectoryAndContents((folder / "tree").c_str())) << last_error().substr(0, 200);
    setrlimit(RLIMIT_NOFILE, &before);
    close(open_now);
    EXPECT_TRUE(fs::is_empty(folder.path()));
}

TEST(posix_folders, links_are_deleted_and_their_targets_are_not) {
    const qor::test::temp_folder folder;
    fs::create_directories(folder / "outside/below");
    folder.file("outside/below/file", "stays");
    make_kinds(folder);
    fs::create_directory(folder / "tree");
    fs::create_directory_symlink("../outside", folder / "tree/to a folder");
    fs::create_symlink("../outside/below/file", folder / "tree/to a file");
    fs::create_symlink("/", folder / "tree/to the root");
    fs::rename(folder / "pipe", folder / "tree/pipe");
    fs::rename(folder / "socket", folder / "tree/socket");
    fs::rename(folder / "dangling", folder / "tree/dangling");
    fs::create_directory_symlink("tree", folder / "to the tree");
    for (const std::string& path : {folder / "to the tree", folder / "to the tree/", folder / "to the tree//"}) {
        EXPECT_FALSE(qorDeleteDirectoryAndContents(path.c_str()));
        EXPECT_EQ(last_error(), "Cannot delete '" + path + "': Not a directory.");
    }
    EXPECT_TRUE(fs::exists(folder / "tree/pipe"));
    EXPECT_TRUE(qorDeleteDirectoryAndContents((folder / "tree").c_str())) << last_error();
    EXPECT_FALSE(fs::exists(folder / "tree"));
    EXPECT_EQ(qor::test::read_file(folder / "outside/below/file"), "stays");
    EXPECT_TRUE(qorDeleteFile((folder / "to the tree").c_str()));
    EXPECT_TRUE(qorDeleteFile((folder / "link").c_str()));
    EXPECT_EQ(qor::test::read_file(folder / "file"), "four");
}

// Another thread exchanges folders of the tree for links to a folder outside, all the time.
TEST(posix_folders, exchanged_for_links_they_are_not_left) {
    const qor::test::temp_folder folder;
    fs::create_directory(folder / "outside");
    std::vector<std::string> outside;
    for (int i = 0; i < 100; ++i)
        outside.push_back(folder.file("outside/" + std::to_string(i), "stays"));
    const std::string tree = folder / "tree";
    const std::string inner = tree + "/a/b";
    fs::create_directory_symlink(folder / "outside", folder / "link");
    std::atomic<bool> is_over{false};
    std::atomic<int> exchanges{0};
    std::thread other([&] {
        const std::string link = folder / "link";
        const auto exchange = [&] {
            return renameat2(AT_FDCWD, inner.c_str(), AT_FDCWD, link.c_str(), RENAME_EXCHANGE) == 0;
        };
        while (!is_over) {
            mkdir(tree.c_str(), 0700);
            mkdir((tree + "/a").c_str(), 0700);
            mkdir(inner.c_str(), 0700);
            if (exchange()) {
                ++exchanges;
                // Where the deletion was faster, the link is gone, and the folder outside the tree becomes one.
                if (!exchange() && rmdir(link.c_str()) == 0) {
                    EXPECT_EQ(symlink((folder / "outside").c_str(), link.c_str()), 0);
                }
            }
        }
    });
    constexpr int enough = 2000;
    for (int i = 0; i < 1'000'000 && exchanges < enough; ++i)
        (void)qorDeleteDirectoryAndContents(tree.c_str()); // may fail, because the other fills the tree
    is_over = true;
    other.join();
    EXPECT_GE(exchanges, enough);
    for (const std::string& each : outside)
        EXPECT_TRUE(fs::exists(each)) << each;
}

// Another thread exchanges a folder of the tree for a pipe. Opening one could wait; nothing does, and it is deleted.
TEST(posix_folders, exchanged_for_pipes_they_are_deleted_without_a_wait) {
    const qor::test::temp_folder folder;
    const std::string tree = folder / "tree", inner = tree + "/inner", pipe = folder / "pipe";
    std::atomic<bool> is_over{false};
    std::atomic<int> exchanges{0};
    std::thread other([&] {
        while (!is_over) {
            mkdir(tree.c_str(), 0700);
            mkdir(inner.c_str(), 0700);
            mkfifo(pipe.c_str(), 0600);
            if (renameat2(AT_FDCWD, inner.c_str(), AT_FDCWD, pipe.c_str(), RENAME_EXCHANGE) == 0) {
                ++exchanges;
                rmdir(pipe.c_str());
            }
        }
    });
    constexpr int enough = 2000;
    for (int i = 0; i < 1'000'000 && exchanges < enough; ++i) {
        (void)qorDeleteDirectoryAndContents(tree.c_str()); // may fail, because the other fills the tree
        zetSmartPointer<IQORFolderContents> contents;
        (void)qorGetFolderContents(inner.c_str(), contents.Out()); // the same
    }
    is_over = true;
    other.join();
    EXPECT_GE(exchanges, enough);
    EXPECT_TRUE(!fs::exists(tree) || qorDeleteDirectoryAndContents(tree.c_str())) << last_error();
}

TEST(posix_folders, that_may_not_be_read_or_searched) {
    const qor::test::temp_folder folder;
    const usual_rights here(folder.path());
    fs::create_directories(folder / "tree/closed/below");
    fs::create_directory(folder / "tree/closed and empty");
    chmod((folder / "tree/closed and empty").c_str(), 0);
    chmod((folder / "tree/closed").c_str(), 0400);
    zetSmartPointer<IQORFolderContents> contents;
    ASSERT_TRUE(qorGetFolderContents((folder / "tree/closed").c_str(), contents.Out())) << last_error();
    ASSERT_EQ(contents->GetCount(), 1u);
    EXPECT_STREQ(contents->Entries()[0].text, "below");
    EXPECT_EQ(contents->Entries()[0].modified, 0u);
    qorClearLastError();
    EXPECT_FALSE(qorFileExists((folder / "tree/closed/below/x").c_str()));
    EXPECT_TRUE(last_error().ends_with(": Permission denied.")) << last_error();
    EXPECT_FALSE(qorDeleteDirectoryAndContents((folder / "tree").c_str()));
    EXPECT_TRUE(last_error().ends_with(": Permission denied.")) << last_error();
    chmod((folder / "tree/closed").c_str(), 0700);
    EXPECT_TRUE(qorDeleteDirectoryAndContents((folder / "tree").c_str())) << last_error();
}

// /dev/shm and the temporary folder, where they are different file systems.
TEST(posix_folders, cannot_be_renamed_across_file_systems) {
    const qor::test::temp_folder folder;
    const std::string file = folder.file("file", "x");
    struct stat here, there;
    if (stat("/dev/shm", &there) != 0 || stat(folder.path().c_str(), &here) != 0 || here.st_dev == there.st_dev)
        GTEST_SKIP() << "there is one file system only";
    const std::string to = "/dev/shm/qor." + std::to_string(getpid());
    for (const bool replace : {false, true}) {
        EXPECT_FALSE(qorRenameFile(file.c_str(), to.c_str(), replace));
        EXPECT_EQ(last_error(), "Cannot rename '" + file + "' to '" + to +
                                    "': they are on different file systems. Copy it and delete the original.");
    }
    EXPECT_TRUE(fs::exists(file));
    EXPECT_FALSE(fs::exists(to));
}

TEST(posix_folders, where_a_file_system_is_mounted_are_not_deleted) {
    qorString message;
    EXPECT_FALSE(qorDeleteDirectoryAndContents("/proc"));
    EXPECT_EQ(qorGetLastError(message), uint32{qorError_folder_is_mount_point});
    EXPECT_STREQ(message, "Cannot delete '/proc': a file system is mounted there.");
}

TEST(posix_folders, a_path_that_the_system_denies_is_not_created_without_end) {
    EXPECT_FALSE(qorCreateDirectoryPath("/proc/no such folder/below"));
    EXPECT_TRUE(last_error().starts_with("Cannot create the folder '/proc/no such folder': ")) << last_error();
}

TEST(posix_folders, replace_only_what_they_may) {
    const qor::test::temp_folder folder;
    fs::create_directories(folder / "one/inside");
    fs::create_directory(folder / "empty");
    EXPECT_FALSE(qorRenameFile((folder / "one").c_str(), (folder / "empty").c_str()));
    EXPECT_TRUE(qorRenameFile((folder / "one").c_str(), (folder / "empty").c_str(), true)) << last_error();
    EXPECT_TRUE(fs::is_directory(folder / "empty/inside"));
    fs::create_symlink("nowhere", folder / "dangling");
    const std::string file = folder.file("file", "x");
    EXPECT_FALSE(qorRenameFile(file.c_str(), (folder / "dangling").c_str()));
    EXPECT_TRUE(last_error().ends_with(": File exists.")) << last_error();
    EXPECT_TRUE(qorRenameFile((folder / "dangling").c_str(), (folder / "moved").c_str())) << last_error();
    EXPECT_TRUE(fs::is_symlink(folder / "moved"));
}

} // namespace
