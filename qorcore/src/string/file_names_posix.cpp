// Strings: the parts of a file name, POSIX.
#include "string/file_names.h"

constinit const std::string_view qor::string::path_separators = "/";
