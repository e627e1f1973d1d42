#include "name_in_sqlite.h"

#include "qor/qor.h"

const char* const store::file_system = nullptr;

// SQLite takes some relative names for commands, such as ":memory:" and "file:".
std::string store::name_in_sqlite(const std::string& path) {
    return qorIsAbsolutePath(path.c_str()) ? path : "./" + path;
}
