// Inside the library: the table of entry points that clients and modules get, made from slots.def.
#pragma once

#include "qor/glue/binding.h"

#include <cstddef>

namespace qor::glue {

extern const binding_table own_table;

// Replaces rows of the table, which nobody can write before and after that. Other threads may be calling through it. If
// the system does not allow it, the rows stay as they are.
void replace_rows(const void* first, const void* with, std::size_t size) noexcept;

} // namespace qor::glue
