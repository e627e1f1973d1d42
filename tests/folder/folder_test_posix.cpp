#include "qor/qor.h"
#include "support/temp_folder.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <pwd.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr uid_t nobody = 65534;

// Returns the text that `ask` returns in a child process, which may make irreversible changes.
std::string in_child(const std::function<std::string()>& ask) {
    int ends[2];
    EXPECT_EQ(pipe(ends), 0);
    const pid_t child = fork();
    if (child == 0) {
        const std::string answer = ask();
        const ssize_t written = write(ends[1], answer.data(), answer.size());
        _exit(written == static_cast<ssize_t>(answer.size()) ? 0 : 1);
    }
    close(ends[1]);
    std::string answer(4096, '\0');
    const ssize_t length = read(ends[0], answer.data(), answer.size());
    close(ends[0]);
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    answer.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
    return answer;
}

std::string home() {
    qorString path;
    qorGetFolderPath(qorFolder_home, path);
    return path.Text();
}

TEST(folder_of_a_user, the_home_folder_is_that_of_the_user_who_asks) {
    if (geteuid() != 0)
        GTEST_SKIP() << "only root may become another user";
    const passwd* const account = getpwuid(nobody);
    ASSERT_NE(account, nullptr);
    const std::string expected = account->pw_dir;
    EXPECT_EQ(in_child([] {
                  unsetenv("HOME");
                  home();
                  return setuid(nobody) == 0 ? home() : std::string();
              }),
              expected);
}

TEST(folder_of_the_framework, one_that_the_system_does_not_tell_is_an_error) {
    if (geteuid() != 0)
        GTEST_SKIP() << "only root may hide /proc";
    const qor::test::temp_folder empty;
    EXPECT_EQ(in_child([&] {
                  qorString text("not empty");
                  qorString message;
                  qorClearLastError();
                  if (chroot(empty.path().c_str()) != 0 || qorGetFolderPath(qorFolder_qor_executable, text) ||
                      text.Length() != 0)
                      return std::string("it was found");
                  qorGetLastError(message);
                  return std::string(message.Text());
              }),
              "There is no folder 'qor-executable' here: the system does not report the path of the running program.");
}

} // namespace
