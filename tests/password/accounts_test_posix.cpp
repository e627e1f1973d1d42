// Ownership and rights of the files of debug control under POSIX.
#include "login/accounts.h"
#include "login/private_file.h"
#include "plain_scram.h"
#include "qor/qor.h"
#include "support/strange_files_posix.h"
#include "support/temp_folder.h"

#include <gtest/gtest.h>

#include <csignal>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace qor::control;

class private_files : public testing::Test {
protected:
    uint32 error_with(mode_t mode, const std::string& path) {
        EXPECT_EQ(chmod(path.c_str(), mode), 0);
        accounts listener;
        qor::crypto::key_pointer key;
        if (listener.open(m_path.c_str()) && listener.open_key(key))
            return 0;
        qorString text;
        return qorGetLastError(text);
    }

    mode_t mode_of(const std::string& path) const {
        struct stat status = {};
        EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
        return status.st_mode & 07777;
    }

    qor::test::temp_folder m_folder;
    const std::string m_path = m_folder.file("users", plain_scram::account("ada", "secret"));
};

TEST_F(private_files, are_their_owners_alone) {
    for (const mode_t mode : {0604, 0640, 0602, 0620, 0601, 0610, 0644, 0666, 0777, 0640, 0660})
        EXPECT_EQ(error_with(mode, m_path), qorError_accounts_unusable) << std::oct << mode;
    for (const mode_t mode : {0600, 0700, 0400})
        EXPECT_EQ(error_with(mode, m_path), 0u) << std::oct << mode;
    EXPECT_EQ(mode_of(m_path + ".key"), 0600u);
    EXPECT_EQ(error_with(0640, m_path + ".key"), qorError_server_key_unusable);
}

TEST_F(private_files, are_not_somebody_elses) {
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can give a file away";
    EXPECT_EQ(chmod(m_path.c_str(), 0600), 0);
    EXPECT_EQ(chown(m_path.c_str(), 12345, 12345), 0);
    EXPECT_EQ(error_with(0600, m_path), qorError_accounts_unusable);
}

TEST_F(private_files, are_files) {
    qorStringArray names;
    EXPECT_FALSE(qorGetDebugUsers(m_folder.path().c_str(), names));
    EXPECT_FALSE(qorGetDebugUsers("/dev/null", names));
    // Opening does not wait for the other end of a pipe in place of the accounts, of the key beside them, or of the
    // known hosts.
    const std::string path = m_folder / "strange";
    std::string text;
    std::string reason;
    bool is_missing = false;
    for (const char* const kind : qor::test::strange_kinds) {
        const qor::test::strange_file strange(kind, path);
        EXPECT_FALSE(qorGetDebugUsers(path.c_str(), names)) << kind;
        EXPECT_FALSE(read_own_file(path, text, reason)) << kind;
        EXPECT_FALSE(read_private_file(path, text, reason, is_missing)) << kind;
        EXPECT_EQ(reason == reason_of(private_file_fault::no_plain_file), std::string_view(kind) != "link to itself")
            << reason;
        EXPECT_FALSE(is_missing) << kind;
        const qor::test::strange_file key(kind, m_path + ".key");
        EXPECT_EQ(error_with(0600, m_path), qorError_server_key_unusable) << kind;
    }
}

TEST_F(private_files, are_private_whatever_the_mask) {
    const mode_t before = umask(0);
    const std::string path = m_folder / "new/folder/users";
    std::string reason;
    EXPECT_TRUE(write_private_file(path, "text", reason)) << reason;
    umask(0777);
    EXPECT_TRUE(write_private_file(m_folder / "closed", "text", reason)) << reason;
    umask(before);
    EXPECT_EQ(mode_of(path), 0600u);
    EXPECT_EQ(mode_of(m_folder / "closed"), 0600u);
    EXPECT_EQ(mode_of(m_folder / "new/folder"), 0700u);
    EXPECT_EQ(mode_of(m_folder / "new"), 0700u);
}

// If a file cannot be written, the old one stays and no other remains beside it.
TEST_F(private_files, whole_or_not_at_all) {
    std::string reason;
    ASSERT_EQ(chmod(m_path.c_str(), 0600), 0);
    const std::string link = m_folder / "link";
    ASSERT_EQ(symlink(m_path.c_str(), link.c_str()), 0);
    ASSERT_TRUE(write_private_file(link, "through the link", reason)) << reason;
    EXPECT_TRUE(std::filesystem::is_symlink(link));
    EXPECT_EQ(qor::test::read_file(m_path), "through the link");
    EXPECT_FALSE(write_private_file(m_path + "/below", "text", reason));
    EXPECT_FALSE(reason.empty());
    std::filesystem::create_directory(m_folder / "taken");
    EXPECT_FALSE(write_private_file(m_folder / "taken", "text", reason));
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(m_folder.path()), {}), 3);
}

// ---- killed during a change

// Replaces the C library's functions, for libqor too: the system call after which a child of a test dies.
enum class step { none, sync, rename };
step deadly = step::none;

} // namespace

extern "C" [[gnu::visibility("default")]] int fsync(int file) {
    if (deadly == step::sync)
        kill(getpid(), SIGKILL);
    return static_cast<int>(syscall(SYS_fsync, file));
}

extern "C" [[gnu::visibility("default")]] int renameat(int folder, const char* from, int other_folder,
                                                       const char* to) noexcept {
    if (deadly == step::rename)
        kill(getpid(), SIGKILL);
    return static_cast<int>(syscall(SYS_renameat2, folder, from, other_folder, to, 0));
}

namespace {

class killed : public private_files {
protected:
    void write_and_die(step at) {
        const pid_t child = fork();
        if (child == 0) {
            deadly = at;
            std::string reason;
            write_private_file(m_path, "half", reason);
            _exit(1);
        }
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFSIGNALED(status)) << status;
    }

    std::vector<std::string> files() const {
        std::vector<std::string> all;
        for (const auto& each : std::filesystem::directory_iterator(m_folder.path()))
            all.push_back(each.path().filename());
        return all;
    }
};

// On file systems with unnamed files, no file with hashes remains. Only between the last two steps the file has a name;
// if the process dies then, the next change removes it.
TEST_F(killed, leaves_nothing_behind) {
    const std::string before = qor::test::read_file(m_path);
    write_and_die(step::sync);
    const int nameless = open(m_folder.path().c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, 0600);
    EXPECT_EQ(files().size(), nameless >= 0 ? 1u : 2u);
    close(nameless);
    write_and_die(step::rename);
    EXPECT_EQ(files().size(), 2u);
    EXPECT_EQ(qor::test::read_file(m_path), before);
    std::string reason;
    EXPECT_TRUE(write_private_file(m_path, "whole", reason)) << reason;
    EXPECT_EQ(files(), std::vector<std::string>{"users"});
    EXPECT_EQ(qor::test::read_file(m_path), "whole");
}

} // namespace
