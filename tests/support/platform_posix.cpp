#include "support/platform.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <clocale>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <unistd.h>

std::string qor::test::process_id() { return std::to_string(getpid()); }
std::string qor::test::thread_id() { return std::to_string(gettid()); }

namespace {

// The state in which a thread was found. It sleeps as long as the count of its waits does not change.
struct state_of_thread {
    bool is_asleep = true;
    std::string waits;
    bool operator==(const state_of_thread&) const = default;
};

state_of_thread look_at(const std::string& thread_id) {
    state_of_thread result;
    std::ifstream status("/proc/self/task/" + thread_id + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with("State:"))
            result.is_asleep = line.find('S', 6) != line.npos || line.find('Z', 6) != line.npos;
        else if (line.starts_with("voluntary_ctxt_switches:"))
            result.waits = line;
    }
    return result;
}

} // namespace

const bool qor::test::tells_memory_of_ended = true;
const bool qor::test::tells_who_sleeps = true;

// One look is not enough: a thread may be waiting for a lock that another is about to release. If all threads are
// asleep at two looks in a row, no thread holds such a lock.
void qor::test::wait_until_asleep(const std::vector<std::string>& thread_ids, int) {
    std::vector<state_of_thread> before;
    for (bool all_asleep = false; !all_asleep;) {
        std::vector<state_of_thread> now;
        for (const std::string& each : thread_ids)
            now.push_back(look_at(each));
        all_asleep = now == before && std::ranges::all_of(now, &state_of_thread::is_asleep);
        before = now;
    }
}

std::string qor::test::program_name() { return program_invocation_short_name; }

void qor::test::interrupt_process() { std::raise(SIGINT); }
void qor::test::kill_process() { std::raise(SIGKILL); } // 128 + 9

const char* const qor::test::full_disk = "/dev/full";

qor::test::reasons qor::test::system_reasons() {
    return {"No such file or directory", "No such file or directory", "Is a directory",
            "Not a directory",           "No such file or directory", "No space left on device"};
}

// Built in the C library's own format, so that no locale needs to be installed.
qor::test::comma_locale::comma_locale() {
    static constexpr char numeric[] =
        "\x14\x11\x03\x20\x06\0\0\0\x20\0\0\0\x22\0\0\0\x24\0\0\0\x28\0\0\0\x2c\0\0\0\x30\0\0\0"
        ",\0.\0\3\3\0\0,\0\0\0.\0\0\0ANSI_X3.4-1968";
    std::filesystem::create_directory(m_folder / "comma");
    std::ofstream(m_folder / "comma/LC_NUMERIC", std::ios::binary).write(numeric, sizeof numeric);
    setenv("LOCPATH", m_folder.path().c_str(), 1);
    std::setlocale(LC_NUMERIC, "comma");
}

qor::test::comma_locale::~comma_locale() {
    std::setlocale(LC_NUMERIC, "C");
    unsetenv("LOCPATH");
}
