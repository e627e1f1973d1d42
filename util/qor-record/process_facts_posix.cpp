#include "process_facts.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <elf.h>
#include <fcntl.h>
#include <link.h>
#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace qor::record {

namespace {

// "NSpid:" lists the numbers of the process, the one of its own namespace last.
bool has_inner_number(std::int32_t process, std::int32_t number) {
    std::FILE* const file = std::fopen(path_in_proc(process, "status").c_str(), "re");
    if (file == nullptr)
        return false;
    bool is_inner = false;
    char line[256];
    while (std::fgets(line, sizeof line, file) != nullptr) {
        if (std::strncmp(line, "NSpid:", 6) != 0)
            continue;
        const char* const last = std::strrchr(line, '\t');
        is_inner = last != line + 6 && last != nullptr && std::atoi(last + 1) == number;
        break;
    }
    std::fclose(file);
    return is_inner;
}

} // namespace

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

bool image_of(std::int32_t process, program_image& found) {
    const int file = ::open(path_in_proc(process, "auxv").c_str(), O_RDONLY | O_CLOEXEC);
    if (file < 0)
        return false;
    ElfW(auxv_t) values[64];
    const ssize_t size = ::read(file, values, sizeof values);
    ::close(file);
    for (std::size_t i = 0; size > 0 && i < static_cast<std::size_t>(size) / sizeof values[0]; ++i) {
        const std::uint64_t value = values[i].a_un.a_val;
        switch (values[i].a_type) {
        case AT_ENTRY:
            found.entry = value;
            break;
        case AT_RANDOM:
            found.random_bytes = value;
            break;
        case AT_SYSINFO_EHDR:
            found.kernel_library = value;
            break;
        default:
            break;
        }
    }
    return size > 0 && found.entry != 0;
}

std::int32_t find_in_namespaces(std::int32_t number, const program_image& image) {
    std::int32_t found = 0;
    DIR* const entries = ::opendir("/proc");
    while (const dirent* const entry = entries != nullptr && found == 0 ? ::readdir(entries) : nullptr) {
        const std::int32_t process = std::atoi(entry->d_name);
        program_image its{};
        if (process > 0 && has_inner_number(process, number) && image_of(process, its) && its == image)
            found = process;
    }
    if (entries != nullptr)
        ::closedir(entries);
    return found;
}

int open_process(std::int32_t process) { return static_cast<int>(::syscall(SYS_pidfd_open, process, 0)); }

bool has_ended(std::int32_t process, int handle) {
    return handle >= 0 ? is_readable(handle) : ::kill(process, 0) != 0 && errno == ESRCH;
}

bool is_readable(int descriptor) {
    pollfd wanted{descriptor, POLLIN, 0};
    return ::poll(&wanted, 1, 0) > 0;
}

} // namespace qor::record
