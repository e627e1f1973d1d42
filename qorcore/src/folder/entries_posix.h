// Inside the folders on POSIX: the names in an open folder, in blocks as the kernel delivers them.
#pragma once

#include "platform/file_status_posix.h"
#include "platform/uninterrupted_posix.h"

#include <cerrno>
#include <dirent.h>
#include <memory>
#include <string_view>

namespace qor::folder {

// Calls `each(entry, name)` for everything but "." and "..", until it returns another number than 0. Returns that
// number, or the system's error code, or 0 behind the last name. The C library's readdir would read blocks of 32 KiB.
template <class EACH>
int each_entry(int folder, std::size_t block_size, EACH each) {
    const auto block = std::make_unique_for_overwrite<char[]>(block_size);
    for (;;) {
        const ssize_t size = platform::uninterrupted([&] { return getdents64(folder, block.get(), block_size); });
        if (size < 0)
            return errno;
        if (size == 0)
            return 0;
        for (ssize_t at = 0; at < size;) {
            const auto& entry = *reinterpret_cast<const dirent64*>(block.get() + at);
            at += entry.d_reclen;
            const std::string_view name = entry.d_name;
            if (name == "." || name == "..")
                continue;
            if (const int code = each(entry, name))
                return code;
        }
    }
}

} // namespace qor::folder
