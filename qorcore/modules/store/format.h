// Inside the module qor-store: the file of a store. docs/object-store.md describes it.
#pragma once

#include "connection.h"

namespace store {

inline constexpr uint32 page_size = 4096;
inline constexpr uint64 application_id = 0x716f7253; // "qorS"
inline constexpr uint64 format_version = 1;

// Opens a file and makes it ready; creates a store in it if the options say so. Of a damaged one, nothing but the
// connection is needed. Returns false and sets the last error on failure, like all of these.
bool open_file(connection& file, const char* path, const qorObjectStoreOptions& options);

// Checks that this is an object store of a format that is known here.
bool verify_format(connection& file) noexcept;

// Get and set the numbers of the table `meta`.
bool get_meta(connection& file, const char* name, uint64& value) noexcept;
bool set_meta(connection& file, const char* name, uint64 value) noexcept;

} // namespace store
