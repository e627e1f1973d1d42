// Inside the library: the table of entry points that clients and modules get, made from slots.def.
#pragma once

#include "qor/glue/binding.h"

namespace qor::glue {

extern const binding_table own_table;

} // namespace qor::glue
