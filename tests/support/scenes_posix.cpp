#include "support/scenes.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using qor::test::words;

std::vector<char*> pointers(const words& texts) {
    std::vector<char*> result;
    for (const std::string& text : texts)
        result.push_back(const_cast<char*>(text.c_str()));
    result.push_back(nullptr);
    return result;
}

// Instrumented programs get their report settings through the environment, which are not part of a test.
words make_environment(const words& settings) {
    std::map<std::string, std::string> values{{"PATH", "/usr/bin:/bin"}, {"LC_ALL", "C"}};
    for (const char* name : {"ASAN_OPTIONS", "LSAN_OPTIONS", "TSAN_OPTIONS", "UBSAN_OPTIONS"})
        if (const char* const value = std::getenv(name))
            values[name] = value;
    for (const std::string& setting : settings)
        values[setting.substr(0, setting.find('='))] = setting.substr(setting.find('=') + 1);
    words result;
    for (const auto& [name, value] : values)
        result.push_back(name + '=' + value);
    return result;
}

// Output goes to files, not pipes, so that a program never waits for its reader.
class output {
public:
    output() : m_file(std::tmpfile()) {}
    output(const output&) = delete;
    output& operator=(const output&) = delete;
    ~output() { std::fclose(m_file); }
    int handle() const { return fileno(m_file); }
    std::string text() const {
        std::string result(static_cast<std::size_t>(lseek(handle(), 0, SEEK_END)), '\0');
        EXPECT_EQ(pread(handle(), result.data(), result.size(), 0), static_cast<ssize_t>(result.size()));
        return result;
    }

private:
    std::FILE* m_file;
};

} // namespace

qor::test::ending qor::test::run(const words& command, const words& environment) {
    const words all = make_environment(environment);
    const output out;
    const output err;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, out.handle(), STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, err.handle(), STDERR_FILENO);
    pid_t child = 0;
    const int failed = posix_spawnp(&child, command.front().c_str(), &actions, nullptr, pointers(command).data(),
                                    pointers(all).data());
    posix_spawn_file_actions_destroy(&actions);
    if (failed != 0) {
        ADD_FAILURE() << command.front() << ": " << std::strerror(failed);
        return {-1, {}, {}};
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), out.text(), err.text()};
}

std::string qor::test::this_program() {
    char self[4096];
    const ssize_t length = readlink("/proc/self/exe", self, sizeof self);
    return {self, static_cast<std::size_t>(length)};
}
