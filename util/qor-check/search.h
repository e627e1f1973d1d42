// The search of a binding, as impl_posix.h makes it, for the program of another file.
#pragma once

#include "program.h"

namespace qor::check {

enum class verdict { missing, no_library, refused, loaded };

struct place {
    std::string path;
    verdict result = verdict::missing;
    std::string reason; // the loader's, if it has refused the file
    bool is_by_name = false;
};

// Goes through the places in which the program looks for libqor, and loads the library where the program would. Returns
// it, or null; the last of the places is then the one that ended the search.
void* find_library(const program& of, std::vector<place>& places);

// Returns the table that a library hands out; null if it has no usable entry, for which `has_entry` is false, or no
// table.
const void* table_of(void* library, bool& has_entry);

} // namespace qor::check
