// Inside the module qor-store: how SQLite finds a file.
#pragma once

#include <string>

namespace store {

// The part of SQLite that opens files, by its name; null: the usual one.
extern const char* const file_system;

// The name by which it finds a path.
std::string name_in_sqlite(const std::string& path);

} // namespace store
