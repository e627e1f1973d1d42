// Inside the library: the file of one catalog in one language. docs/message-catalogs.md describes the format for
// translators.
//
// No file content can stop a program: an unusable message is treated as missing.
#pragma once

#include "catalog/catalog.h"

#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace qor::catalog {

// Texts in the order of the English messages; an empty text is missing. The vector is empty if all texts are missing.
using translation = std::vector<std::string>;

translation parse_catalog(std::string_view content, std::span<const message> english);

// The same for a file, which may be missing or not a regular file.
translation load_catalog(const std::string& path, std::span<const message> english);

} // namespace qor::catalog
