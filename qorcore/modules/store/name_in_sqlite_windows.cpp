#include "name_in_sqlite.h"

#include "qor/glue/wide_path_windows.h"
#include "qor/qor.h"

#include <windows.h>

// It differs from the usual one only in the length of the paths that it takes.
const char* const store::file_system = "win32-longpath";

std::string store::name_in_sqlite(const std::string& path) {
    // SQLite takes some relative names for commands, such as ":memory:" and "file:".
    std::string name = qorIsAbsolutePath(path.c_str()) ? path : ".\\" + path;
    std::wstring wide = qor::glue::wide_path(name);
    if (wide.empty())
        return name; // not UTF-8: SQLite says that there is no such file
    // SQLite puts "-journal" behind it.
    qor::glue::lift_path_limit(wide, qor::glue::longest_plain_path - 8);
    // A unit of UTF-16 takes at most three bytes in UTF-8.
    name.assign(wide.size() * 3, '\0');
    name.resize(
        static_cast<std::size_t>(WideCharToMultiByte(CP_UTF8, 0, wide.data(), static_cast<int>(wide.size()),
                                                     name.data(), static_cast<int>(name.size()), nullptr, nullptr)));
    return name;
}
