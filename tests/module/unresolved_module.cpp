// Has a description and the export, but needs a symbol that no other library has.
#include "odd_module.h"

extern "C" const void* a_symbol_that_nobody_has();
extern "C" QOR_EXPORTED const qor::glue::module_table* glue_module_point(const qor::glue::binding_table*) noexcept {
    return static_cast<const qor::glue::module_table*>(a_symbol_that_nobody_has());
}
