// Opens files that a program looks for on its own: its library, a module, a catalog, an account file, a port's lock
// file. Anyone who can write to the folder can replace such a file by a pipe or a device; opening it must not block the
// program. Files that the user names are not opened this way, because they may be pipes.
#pragma once

#include "qor/system/Types.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace qor::glue {

// Why a file cannot be read like one on a disk: 0 if it can, EISDIR for a folder, ESPIPE for a pipe, a socket or a
// device.
inline int reason_against(const struct stat& status) noexcept {
    if (S_ISDIR(status.st_mode))
        return EISDIR;
    return S_ISREG(status.st_mode) ? 0 : ESPIPE;
}

// Opens a file for reading and fills in its status; the caller closes the descriptor. Returns -1 and sets errno on
// failure; a file that is not regular gives the code of reason_against(). Files in /proc and /sys count as regular.
// Never blocks. The file type is checked before open(), because opening a device can have side effects, and again
// afterwards, because the file may have been replaced in between.
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
