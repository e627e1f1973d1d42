#include "support/platform.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <clocale>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <unistd.h>

std::string qor::test::process_id() { return std::to_string(getpid()); }
std::string qor::test::thread_id() { return std::to_string(gettid()); }
std::string qor::test::program_name() { return program_invocation_short_name; }

void qor::test::interrupt_process() { std::raise(SIGINT); }
void qor::test::kill_process() { std::raise(SIGKILL); } // 128 + 9

const char* const qor::test::full_disk = "/dev/full";

qor::test::reasons qor::test::system_reasons() {
    return {"No such file or directory", "No such file or directory", "Is a directory", "Not a directory",
            "No such file or directory", "No space left on device"};
}

// Of the C library's own form, so that none needs to be installed.
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
