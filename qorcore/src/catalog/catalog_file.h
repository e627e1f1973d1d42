// Inside the library: the file of one catalog in one language. docs/message-catalogs.md describes it for
// those who write one.
//
// Nothing in a file can stop a run: a message that cannot be used is missing, as if its line were not there.
#pragma once

#include "catalog/catalog.h"

#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace qor::catalog {

// Texts in the order of the English messages; an empty one is missing. All missing: no element at all.
using translation = std::vector<std::string>;

translation parse_catalog(std::string_view content, std::span<const message> english);

// The same for a file, which may be missing or no file at all.
translation load_catalog(const std::string& path, std::span<const message> english);

} // namespace qor::catalog
