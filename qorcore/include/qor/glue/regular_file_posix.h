// The POSIX way to open what a program looks for by itself: its library, a module, a catalog, an account file, the lock
// file of a port. Whoever can write the folder can put a pipe or a device in the place of such a file, and must not be
// able to hold the program up by that. A file that the user names is another matter: it may be a pipe.
#pragma once

#include "qor/system/Types.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace qor::glue {

// Why a file cannot be read like one on a disk: 0, EISDIR for a folder, ESPIPE for a pipe, a socket or a device.
inline int reason_against(const struct stat& status) noexcept {
    if (S_ISDIR(status.st_mode))
        return EISDIR;
    return S_ISREG(status.st_mode) ? 0 : ESPIPE;
}

// A descriptor for reading, which the caller closes, and what there is to know of the file. -1: errno says why, and for
// all but regular files (those of /proc and /sys are regular) it is that of reason_against(). Never waits. What is
// there is looked at before it is opened, since opening is an act for a device, and afterwards, since it may have been
// replaced.
inline int open_regular_file(const char* path, struct stat& status) noexcept {
    if (stat(path, &status) != 0)
        return -1;
    int reason = reason_against(status);
    if (reason == 0) {
        int file;
        do
            file = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
        while (file < 0 && errno == EINTR);
        if (file < 0)
            return -1;
        reason = fstat(file, &status) == 0 ? reason_against(status) : errno;
        if (reason == 0)
            return file;
        close(file);
    }
    errno = reason;
    return -1;
}

} // namespace qor::glue
