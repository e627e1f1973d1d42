#include "serial/lock_files.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/sysmacros.h>

namespace {

// The number is written as text by most, as a plain int by some: that has a zero byte, because processes have numbers below
// 2^22, and a text has none. 0: it cannot be told.
int read_holder(std::FILE* file) {
    char text[32] = "";
    const std::size_t length = std::fread(text, 1, sizeof text - 1, file);
    int number;
    if (length == sizeof number && std::memchr(text, 0, length) != nullptr)
        std::memcpy(&number, text, sizeof number);
    else
        number = std::atoi(text);
    return std::max(number, 0);
}

} // namespace

qor::serial::lock qor::serial::find_lock(const host& on, const std::string& kernel_name, dev_t number, int& holder) {
    char by_number[32];
    std::snprintf(by_number, sizeof by_number, "/LCK.%03u.%03u", major(number), minor(number));
    for (const std::string& name : {"/LCK.." + std::string(base_name(kernel_name)), std::string(by_number)}) {
        std::FILE* const file = std::fopen((on.locks + name).c_str(), "re");
        if (file == nullptr) {
            // One that may not be read is there all the same.
            if (errno == EACCES)
                return lock::somebody;
            continue;
        }
        holder = read_holder(file);
        std::fclose(file);
        // Whoever is about to write the number has locked it already.
        if (holder == 0)
            return lock::somebody;
        if (kill(holder, 0) == 0 || errno != ESRCH)
            return lock::process;
    }
    return lock::none;
}
