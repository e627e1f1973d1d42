// Inside the POSIX half of the library.
#pragma once

#include <cerrno>

namespace qor::platform {

// Makes a system call, and makes it again whenever a signal interrupts it.
template <class CALL>
auto uninterrupted(CALL call) noexcept {
    decltype(call()) result;
    do
        result = call();
    while (result < 0 && errno == EINTR);
    return result;
}

} // namespace qor::platform
