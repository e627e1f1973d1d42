// Inside the library: the replacement of a whole file. A new file is written beside the old one and takes its name when
// it is complete and on the disk.
#pragma once

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

    // Prepares an empty file that is to take the place of the one at `path`. The new file has the rights of the old
    // one, or those of a new file; if `is_private`, they are those of this user alone.
    int begin(const char* path, bool is_private);

    // What the new file holds is written to it. Valid between begin() and commit() or drop().
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
    // POSIX only: the folder; the rights that the new file gets, and its owner and group.
    int m_folder = -1;
    unsigned m_rights = 0;
    unsigned m_owner = 0;
    unsigned m_group = 0;
    bool m_keeps_owner = false;
    bool m_sets_rights = false;
};

} // namespace qor::platform
