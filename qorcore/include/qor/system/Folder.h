// Folders: the framework's named folders, which belong to the user, the system or the framework (docs/folders.md lists
// their locations on each system), and the operations on folders and names in general.
//
// A path is UTF-8. On Linux any bytes are accepted and handed on as they are; on Windows a name that is not valid
// UTF-16 has each single surrogate in its three-byte form, so every name survives a round trip. An error names the
// operation, the path and the system's reason. Any thread may call the operations.
#pragma once

#include "qor/system/FileInfo.h"
#include "qor/system/Interface.h"
#include "qor/system/String.h"

#include <span>
#include <string_view>
#include <utility>

// The numbers never change and are never reused. Several ids may name the same folder: a user without a music folder
// keeps music in the home folder.
enum qorFolderId : uint32 {
    // Folders of the user.
    qorFolder_home = 0,
    qorFolder_desktop = 1,
    qorFolder_documents = 2,
    qorFolder_downloads = 3,
    qorFolder_music = 4,
    qorFolder_pictures = 5,
    qorFolder_videos = 6,
    qorFolder_public = 7,
    qorFolder_templates = 8,
    qorFolder_user_configuration = 9,
    qorFolder_user_data = 10,
    qorFolder_user_state = 11,
    qorFolder_user_cache = 12,
    qorFolder_user_runtime = 13, // sockets and the like; deleted when the user logs off
    qorFolder_user_temporary = 14,
    qorFolder_user_logs = 15,
    qorFolder_user_fonts = 16,

    // Folders of the system, for all users.
    qorFolder_system_configuration = 17,
    qorFolder_system_data = 18,
    qorFolder_system_state = 19,
    qorFolder_system_cache = 20,
    qorFolder_system_logs = 21,
    qorFolder_system_temporary = 22,
    qorFolder_system_programs = 23,
    qorFolder_system_libraries = 24,

    // Folders of the framework.
    qorFolder_qor_executable = 25, // the folder of the running program
    qorFolder_qor_library = 26,    // the folder that libqor was loaded from
    qorFolder_qor_catalogs = 27,   // the folder of the message catalogs
    qorFolder_qor_user_configuration = 28,
    qorFolder_qor_system_configuration = 29,
};

// All ids lie below this number.
inline constexpr uint32 qorFolderCount = 30;

// Gets the short name of a folder, such as "home" or "system-logs". Returns false (last error) and empties `tag` if
// there is no such id. Any thread.
inline bool qorGetFolderTagForId(qorFolderId id, qorString& tag) noexcept {
    return qor::glue::qorGetFolderTagForId(id, tag);
}

// Gets the path of a folder: absolute, without a separator at the end. Creates nothing, so the folder may not exist.
// Returns false (last error) and empties `path` if there is no such id, or if this system does not define the folder.
// Uses the current environment, except in a process with more rights than its caller. Any thread.
inline bool qorGetFolderPath(qorFolderId id, qorString& path) noexcept { return qor::glue::qorGetFolderPath(id, path); }

// Replaces each named folder in a path by its own path, and gets the result: "${user-data}/maps" becomes
// "/home/ann/.local/share/maps". A name is the tag of a folder. "$${" stands for "${" itself; any other '$' is an
// ordinary byte. Returns false (last error) and empties `out` if a tag is unknown or has no '}', or if this system does
// not define the folder. `out` may be the string that `path` comes from.
inline bool qorTranslatePath(const char* path, qorString& out) noexcept {
    return qor::glue::qorTranslatePath(path, out);
}

// Returns whether a path means the same wherever the current folder is: it begins with '/'; on Windows with a drive and
// a separator ("C:\x"), or with the name of a server or device ("\\server\share").
inline bool qorIsAbsolutePath(const char* path) noexcept { return qor::glue::qorIsAbsolutePath(path); }

// ---- contents

// One name in a folder. For a link, everything is that of the link itself.
struct qorFolderEntry {
    const char* text; // the name, terminated
    uint32 length;    // of the name
    qorFileKind kind; // what it stands for
    uint64 size;      // in bytes; 0 for kinds other than files and links
    uint64 modified;  // a clock (qor/system/Time.h); 0 if the caller may not examine the name

    // The name.
    std::string_view Name() const noexcept { return {text, length}; }
};

// The contents of a folder, as it was read once. The object is immutable; any thread may use it.
class IQORFolderContents : public IQORInterface {
public:
    // The number of entries, and the first of them; they stand one behind the other and live as long as the object.
    virtual uint64 GetCount() noexcept = 0;
    virtual const qorFolderEntry* GetEntries() noexcept = 0;

    // All entries, for range-for and the algorithms of the C++ library.
    std::span<const qorFolderEntry> Entries() noexcept { return {GetEntries(), static_cast<std::size_t>(GetCount())}; }

protected:
    ~IQORFolderContents() = default;
};

// Reads the contents of a folder in one pass, without "." and "..", in the system's order. A name that disappears
// meanwhile is left out. If the caller may not examine a name, only the name and usually the kind are known; any
// other failure ends the call. Returns false and leaves *out unchanged on failure.
[[nodiscard]] inline bool qorGetFolderContents(const char* path, IQORFolderContents** out) noexcept {
    return qor::glue::qorGetFolderContents(path, out);
}

// ---- changes

// Creates a folder in one that exists. `rights` are those of POSIX, without the ones that the umask takes away; on
// Windows the folder has those of the one above it. Fails if the name exists.
inline bool qorCreateDirectory(const char* path, uint32 rights = 0777) noexcept {
    return qor::glue::qorCreateDirectory(path, rights);
}

// Creates a folder and all the missing ones above it. Succeeds if the folder exists already. `rights` are those of the
// folder itself. After a failure, the folders that were created stay.
inline bool qorCreateDirectoryPath(const char* path, uint32 rights = 0777) noexcept {
    return qor::glue::qorCreateDirectoryPath(path, rights);
}

// Deletes a folder with everything in it. A link inside is deleted itself; nothing that it leads to is touched, even if
// others exchange folders for links meanwhile. Refuses a path that is a link, ends with "." or "..", or is a root, and
// a folder in which another file system is mounted. Stops at the first failure; what was deleted before stays deleted.
inline bool qorDeleteDirectoryAndContents(const char* path) noexcept {
    return qor::glue::qorDeleteDirectoryAndContents(path);
}

// Gives a file, folder or link another name, in one step: others see either the old name or the new one. With `replace`
// false, fails if `to` exists. With `replace` true, `to` may be a file if `from` is not a folder; on Linux also an
// empty folder, if `from` is a folder. Fails if the two paths are on different file systems.
inline bool qorRenameFile(const char* from, const char* to, bool replace = false) noexcept {
    return qor::glue::qorRenameFile(from, to, replace);
}

// Deletes a file, or a link itself. Refuses folders. A file that is read-only is deleted like any other, if the folder
// allows it.
inline bool qorDeleteFile(const char* path) noexcept { return qor::glue::qorDeleteFile(path); }

// ---- temporary folders

// Gets the folder for temporary files, which exists: that of the name user-temporary. Returns false (last error) and
// empties `path` if it is not a folder.
inline bool qorGetTempFolder(qorString& path) noexcept { return qor::glue::qorGetTempFolder(path); }

// Creates a folder with a name that nobody else has, which only the user may enter (Windows: as the folder above it).
// `parent` is the folder above it, or null for the one of qorGetTempFolder; `prefix` begins the name and may be empty.
// Gets the path. Returns false (last error) and empties `path` on failure.
inline bool qorCreateUniqueDirectory(const char* parent, const char* prefix, qorString& path) noexcept {
    return qor::glue::qorCreateUniqueDirectory(parent, prefix, path);
}

// A folder for the files of one task; the destructor deletes it with its contents. It can be moved, not copied.
class qorTempFolder {
public:
    // Without a folder.
    qorTempFolder() noexcept = default;
    qorTempFolder(qorTempFolder&& other) noexcept : m_path(std::exchange(other.m_path, qorString())) {}
    qorTempFolder& operator=(qorTempFolder&& other) noexcept {
        std::swap(m_path, other.m_path);
        return *this;
    }
    ~qorTempFolder() {
        if (!m_path.IsEmpty())
            qorDeleteDirectoryAndContents(m_path);
    }

    // Creates the folder, as qorCreateUniqueDirectory does, and deletes the one created before.
    [[nodiscard]] bool Create(const char* prefix = "", const char* parent = nullptr) noexcept {
        return Delete() && qorCreateUniqueDirectory(parent, prefix, m_path);
    }

    // Deletes the folder with its contents; does nothing without a folder. Returns false and keeps the folder on
    // failure.
    bool Delete() noexcept {
        if (!m_path.IsEmpty() && !qorDeleteDirectoryAndContents(m_path))
            return false;
        m_path.Empty();
        return true;
    }

    // Leaves the folder to the caller and returns its path.
    qorString Keep() noexcept { return std::exchange(m_path, qorString()); }

    // The path; empty without a folder.
    const qorString& Path() const noexcept { return m_path; }

private:
    qorString m_path;
};
