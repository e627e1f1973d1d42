// Inside the library: the removable disks, implemented for each system.
#pragma once

#include "qor/qor.h"

#include <string>
#include <vector>

namespace qor::folder {

// Adds the disks, ordered by device. Returns 0 or the system's error code; then `failed` is the path that could not be
// read. The files of the system may be a recording of another host in the folder `root`, which is empty for "/" itself
// and on Windows.
int read_removable_disks(const std::string& root, std::vector<qorRemovableDisk>& out, std::string& failed);

} // namespace qor::folder
