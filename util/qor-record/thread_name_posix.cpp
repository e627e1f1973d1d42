#include "thread_name.h"

#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace qor::record {

std::string name_of_thread(std::int32_t process, std::uint32_t thread) {
    char path[64];
    std::snprintf(path, sizeof path, "/proc/%d/task/%u/comm", process, thread);
    const int file = ::open(path, O_RDONLY | O_CLOEXEC);
    if (file < 0)
        return {};
    char name[64];
    const ssize_t size = ::read(file, name, sizeof name);
    ::close(file);
    std::string text(name, size > 0 ? static_cast<std::size_t>(size) : 0);
    while (!text.empty() && text.back() == '\n')
        text.pop_back();
    return text;
}

} // namespace qor::record
