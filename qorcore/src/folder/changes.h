// Inside the library: creating, renaming and deleting, implemented for each system. Results are the system's error
// codes, 0 for success.
#pragma once

#include "qor/qor.h"

#include <string>

namespace qor::folder {

int create_folder(const char* path, uint32 rights) noexcept;

int delete_file(const char* path) noexcept;

// Results of delete_tree and rename that are no failures of a single call.
extern const int is_mount_point;    // another file system begins there
extern const int changes_meanwhile; // the folder is moved or filled while it is deleted
extern const int other_file_system; // only rename

// After a failure, `failed` is the path of what could not be deleted.
int delete_tree(const char* path, std::string& failed);

int rename(const char* from, const char* to, bool replace) noexcept;

// Whether a code means that the name exists already.
bool is_taken(int code) noexcept;

} // namespace qor::folder
