// Inside the library: what the system knows about a file, the same on every system.
#pragma once

#include "qor/system/FileInfo.h"

namespace qor::platform {

struct file_status {
    qorFileInfo info;
    uint64 changed;   // last change of the content, the name or the rights, as a clock; 0: not kept
    uint64 allocated; // bytes that the file takes on its disk
    uint64 links;     // how many names it has
    uint64 device;    // with `id`, identifies the file on this host
    uint64 id[2];
    uint32 owner; // the numbers of its user and its group; Windows has none: all ones
    uint32 group;
    // The rest of the times that the 100-ns units cannot hold: nanoseconds, 0 to 99.
    uint8 modified_rest;
    uint8 accessed_rest;
    uint8 created_rest;
    uint8 changed_rest;
};

} // namespace qor::platform
