// Has all that a module needs, and refuses this library.
#include "odd_module.h"

extern "C" QOR_EXPORTED const qor::glue::module_table* glue_module_point(const qor::glue::binding_table*) noexcept {
    return nullptr;
}
