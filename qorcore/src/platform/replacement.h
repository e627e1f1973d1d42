// Inside the library: the replacement of a whole file. A new file is written beside the old one and takes its name when
// it is complete and on the disk.
#pragma once

#include "platform/file_attributes.h"
#include "platform/raw_file.h"

#include <string>

namespace qor::platform {

// Results are the system's error codes, or those of raw_file::open().
class replacement {
public:
    replacement() noexcept = default;
    replacement(const replacement&) = delete;
    replacement& operator=(const replacement&) = delete;
    ~replacement() { drop(); }

    // Prepares an empty file that is to take the place of the one at `path`. If `is_private`, it is for this user
    // alone. Otherwise it has, as far as the system permits, what does not belong to the content of the old file:
    // rights, access control list, owner and group, attributes. If there is no old file, it has what the system gives
    // to new ones.
    int begin(const char* path, bool is_private);

    // The content of the new file is written to it. Valid between begin() and commit() or drop().
    raw_file& file() noexcept { return m_file; }

    // Puts the new file in its place, on the disk. On failure the old file is still there, unless the folder's way to
    // the disk is what failed.
    int commit();

    // Removes the new file.
    void drop() noexcept;

private:
    raw_file m_file;
    std::string m_target; // the file's name; on Windows its path
    std::string m_name;   // that of the new file, likewise; empty: it has none yet
    file_attributes m_kept;
    bool m_keeps = false; // whether the new file gets m_kept
    bool m_is_private = false;
    int m_folder = -1; // POSIX only
};

} // namespace qor::platform
