// The framework's named folders: where things of the user, of the system and of the framework itself lie.
// docs/folders.md tells for each of them where that is on either system.
#pragma once

#include "qor/glue/binding.h"

// The numbers are never moved or reused. The same folder may have several names: a user without a folder for
// music keeps music in the home folder.
enum qorFolderId : uint32 {
    // of the user
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
    qorFolder_user_runtime = 13, // sockets and the like; gone when the user logs off
    qorFolder_user_temporary = 14,
    qorFolder_user_logs = 15,
    qorFolder_user_fonts = 16,

    // of the system, for all users
    qorFolder_system_configuration = 17,
    qorFolder_system_data = 18,
    qorFolder_system_state = 19,
    qorFolder_system_cache = 20,
    qorFolder_system_logs = 21,
    qorFolder_system_temporary = 22,
    qorFolder_system_programs = 23,
    qorFolder_system_libraries = 24,

    // of the framework
    qorFolder_qor_executable = 25, // the folder that the running program lies in
    qorFolder_qor_library = 26,    // the folder that libqor was loaded from
    qorFolder_qor_catalogs = 27,   // where it looks for message catalogs
    qorFolder_qor_user_configuration = 28,
    qorFolder_qor_system_configuration = 29,
};

// The ids lie below this number.
inline constexpr uint32 qorFolderCount = 30;

// The folder's short name, such as "home" or "system-logs". False: there is no such id (last error), and
// `tag` is empty. Any thread.
inline bool qorGetFolderTagForId(qorFolderId id, qorString& tag) noexcept {
    return qor::glue::qorGetFolderTagForId(id, tag);
}

// Where the folder lies: an absolute path without a separator at its end. Nothing is created, so the folder
// need not be there. False: there is no such id, or this machine says nowhere where it is (last error), and
// `path` is empty. The environment counts, as it is now, but not in a process with rights that its caller
// does not have. Any thread.
inline bool qorGetFolderPath(qorFolderId id, qorString& path) noexcept { return qor::glue::qorGetFolderPath(id, path); }
