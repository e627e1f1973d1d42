// The only symbol that libqor exports.
#include "glue/own_table.h"

extern "C" const qor::glue::binding_table* glue_binding_point() noexcept { return &qor::glue::own_table; }
