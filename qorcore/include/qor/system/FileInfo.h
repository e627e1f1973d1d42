// What a file system knows about a file or a folder.
#pragma once

#include "qor/system/Types.h"

// What a name stands for.
enum class qorFileKind : uint32 {
    unknown,
    file,             // bytes on a disk
    folder,           // holds other names
    link,             // stands for another path
    pipe,             // a pipe with a name
    socket,           // one end of a connection
    character_device, // a terminal and the like
    block_device,     // a disk and the like
};

// Filled in by qorFile::GetFileInfo and by the operations on paths (qor/system/Folder.h). A time is a clock
// (qor/system/Time.h), or 0 if the file system does not keep it.
struct qorFileInfo {
    qorFileKind kind;
    uint32 rights;   // POSIX permission bits; on Windows 0666, or 0444 for a read-only file, with 0111 for a folder
    uint64 size;     // in bytes; 0 for what has no size
    uint64 modified; // last change of the content
    uint64 accessed; // last read, as exactly as the file system keeps it
    uint64 created;
};
