#include "serial/lock_files.h"

#include "platform/raw_file.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/sysmacros.h>

namespace {

// Most programs write the process id as text, some as a binary int. A binary id contains a zero byte, because ids are
// below 2^22; a text contains none. Returns 0 if the id is unknown.
int read_holder(qor::platform::raw_file& file) {
    char text[32] = "";
    std::size_t length = 0;
    file.read_at(0, text, sizeof text - 1, &length);
    int number;
    if (length == sizeof number && std::memchr(text, 0, length) != nullptr)
        std::memcpy(&number, text, sizeof number);
    else
        number = std::atoi(text);
    return std::max(number, 0);
}

} // namespace

qor::serial::lock qor::serial::find_lock(const host& on, const std::string& kernel_name, dev_t number, int& holder,
                                         std::string& file) {
    char by_number[32];
    std::snprintf(by_number, sizeof by_number, "/LCK.%03u.%03u", major(number), minor(number));
    for (const std::string& name : {"/LCK.." + std::string(base_name(kernel_name)), std::string(by_number)}) {
        file = on.locks + name;
        qor::platform::raw_file opened;
        const int code = opened.open(file.c_str(), platform::raw_file::access::regular);
        if (platform::raw_file::is_missing(code) || code == ENAMETOOLONG)
            continue;
        holder = code == 0 ? read_holder(opened) : 0;
        // A process that is about to write its id has already locked the port.
        if (holder == 0)
            return lock::somebody;
        if (kill(holder, 0) == 0 || errno != ESRCH)
            return lock::process;
    }
    return lock::none;
}
