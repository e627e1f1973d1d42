// The framework's named folders, which belong to the user, the system or the framework. docs/folders.md lists their
// locations on each system.
#pragma once

#include "qor/glue/binding.h"

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
