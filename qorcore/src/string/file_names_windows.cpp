// Strings: the parts of a file name, Windows.
#include "string/file_names.h"

// The colon ends a drive's name: "C:notes.txt" is a file in that drive's current folder.
constinit const std::string_view qor::string::path_separators = "\\/:";
