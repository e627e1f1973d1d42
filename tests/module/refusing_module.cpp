// Has the export of a module, and refuses this library.
#include "qor/glue/module.h"

extern "C" [[gnu::visibility("default")]] const qor::glue::module_table*
glue_module_point(const qor::glue::binding_table*) noexcept {
    return nullptr;
}
