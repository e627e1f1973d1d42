#include "running.h"

#include <cerrno>
#include <csignal>
#include <limits>

namespace qor::heap_tool {

bool is_running(uint64 pid) noexcept {
    if (pid == 0 || pid > static_cast<uint64>(std::numeric_limits<pid_t>::max()))
        return false;
    return kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM;
}

} // namespace qor::heap_tool
