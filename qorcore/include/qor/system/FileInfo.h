// What a file system knows about a file or a folder: kind, size, times, owner, rights, links. Any thread may ask.
#pragma once

#include "qor/glue/binding.h"
#include "qor/system/String.h"

#include <optional>

// The kind of object that a name stands for.
enum class qorFileKind : uint32 {
    unknown,
    file,             // bytes on a disk
    folder,           // holds other names
    link,             // stands for another path; on Windows also a junction
    pipe,             // a pipe with a name
    socket,           // one end of a connection
    character_device, // a terminal and the like
    block_device,     // a disk and the like
};

// The short form, which qorFile::GetFileInfo fills in, too. A time is a clock (qor/system/Time.h), or 0 if the file
// system does not keep it.
struct qorFileInfo {
    qorFileKind kind = qorFileKind::unknown; // of what the path leads to, or of a link itself
    uint32 rights = 0;   // POSIX permission bits; on Windows 0666, or 0444 for a read-only file, with 0111 for a folder
    uint64 size = 0;     // in bytes; 0 for what has no size
    uint64 modified = 0; // last change of the content
    uint64 accessed = 0; // last read, as exactly as the file system keeps it
    uint64 created = 0;  // the creation of the file, not of its content
};

// The long form.
struct qorFileInfoEx : qorFileInfo {
    uint64 changed = 0;   // last change of the content, the name or the rights
    uint64 allocated = 0; // bytes that it takes on its disk; fewer than `size` for a file with holes
    uint64 links = 0;     // how many names it has
    // The three together identify the object on this host: two paths that have the same lead to the same object.
    uint64 device = 0;
    uint64 id[2] = {0, 0};
    // The numbers of its user and group, and their names. A number without a name is the name itself. Windows has no
    // numbers, but all ones; there the names are "DOMAIN\name", or the text of the SID, or empty if the caller may not
    // read them.
    uint32 owner = 0;
    uint32 group = 0;
    qorString owner_name;
    qorString group_name;
    // The text of a link; empty for what is no link.
    qorString target;
    // The rest of the times that the 100-ns units cannot hold: nanoseconds, 0 to 99.
    uint8 modified_rest = 0;
    uint8 accessed_rest = 0;
    uint8 created_rest = 0;
    uint8 changed_rest = 0;
};

// Gets information on the object that `path` leads to, or with `follow` false on a link itself. Returns false and
// leaves `out` unchanged on failure; the last error names the path and the reason.
inline bool qorGetFileInfo(const char* path, qorFileInfo& out, bool follow = true) noexcept {
    return qor::glue::qorGetFileInfo(path, follow, out);
}

// The same as a value, empty on failure.
[[nodiscard]] inline std::optional<qorFileInfo> qorGetFileInfo(const char* path, bool follow = true) noexcept {
    std::optional<qorFileInfo> info(std::in_place);
    if (!qor::glue::qorGetFileInfo(path, follow, *info))
        info.reset();
    return info;
}

// The long form of both. The name of the owner may come from a directory service, so this can take longer.
inline bool qorGetFileInfoEx(const char* path, qorFileInfoEx& out, bool follow = true) noexcept {
    return qor::glue::qorGetFileInfoEx(path, follow, out);
}
[[nodiscard]] inline std::optional<qorFileInfoEx> qorGetFileInfoEx(const char* path, bool follow = true) noexcept {
    std::optional<qorFileInfoEx> info(std::in_place);
    if (!qor::glue::qorGetFileInfoEx(path, follow, *info))
        info.reset();
    return info;
}

// Return whether `path` leads to a folder, or to anything else; links are followed. If there is nothing, they return
// false and leave the last error unchanged; if the system does not tell, they return false and set it. The answer may
// be outdated at once: to create a file only if it is missing, open it with qorFileNew.
inline bool qorFileExists(const char* path) noexcept { return qor::glue::qorFileExists(path); }
inline bool qorDirectoryExists(const char* path) noexcept { return qor::glue::qorDirectoryExists(path); }
