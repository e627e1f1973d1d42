#include "process_facts.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace qor::record {

// Without operator +, of which g++ 12 warns wrongly.
std::string path_in_proc(std::int32_t process, const std::string& name) {
    std::string path = "/proc/";
    path += std::to_string(process);
    path += '/';
    path += name;
    return path;
}

std::string program_of(std::int32_t process) {
    const std::string link = path_in_proc(process, "exe");
    char path[4096];
    const ssize_t size = ::readlink(link.c_str(), path, sizeof path);
    return std::string(path, size > 0 ? static_cast<std::size_t>(size) : 0);
}

std::int32_t parent_of(std::int32_t process) {
    std::int32_t parent = 0;
    const std::string path = path_in_proc(process, "stat");
    if (std::FILE* const file = std::fopen(path.c_str(), "re")) {
        char text[512];
        text[std::fread(text, 1, sizeof text - 1, file)] = '\0';
        std::fclose(file);
        if (const char* const name_end = std::strrchr(text, ')'))
            (void)std::sscanf(name_end + 1, " %*c %d", &parent);
    }
    return parent;
}

int open_process(std::int32_t process) { return static_cast<int>(::syscall(SYS_pidfd_open, process, 0)); }

bool has_ended(std::int32_t process, int handle) {
    return handle >= 0 ? is_readable(handle) : ::kill(process, 0) != 0 && errno == ESRCH;
}

bool is_readable(int descriptor) {
    pollfd wanted{descriptor, POLLIN, 0};
    return ::poll(&wanted, 1, 0) > 0;
}

std::uint64_t steady_time() {
    timespec time;
    ::clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<std::uint64_t>(time.tv_sec) * 1'000'000'000 + static_cast<std::uint64_t>(time.tv_nsec);
}

} // namespace qor::record
