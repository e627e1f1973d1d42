// A module of the framework: a client in a shared library of its own, for what needs a heavy library of somebody else.
// libqor loads it from its own folder when it is first wanted, and never unloads it. docs/modules.md tells the rest.
#pragma once

#include "qor/glue/binding.h"

namespace qor::glue {

// What a module hands out. It lives as long as the process; any thread may use it.
struct module_table {
    // A new object with a reference for the caller: `interface_name` says what it can do, and `kind` which one of these
    // is wanted ("IQORDigestEngine", "sha256"). False: *out is as it was, and the last error says why; a name that the
    // module does not know is qorError_not_supported.
    bool (*create_object)(const char* interface_name, const char* kind, void** out) noexcept;
};

// The one export of a module has this type and the name glue_module_point. `table` is libqor's; the result null: the
// module cannot work with it. It may be called on any thread.
using module_point = const module_table*(const binding_table* table) noexcept;

#ifndef QOR_INSIDE

// The first thing that glue_module_point does: from then on the module calls the framework as every client does. It
// must not call anything of the framework before, from the constructor of a static object for instance: it would look
// for libqor in the wrong place. False: this libqor lacks operations that the module was compiled for; the module then
// calls nothing of it and returns null.
[[nodiscard]] inline bool bind_module(const binding_table* table) noexcept {
    if (table == nullptr || !is_sufficient(*table))
        return false;
    s_funcs.store(table, std::memory_order_release);
    return true;
}

#endif

} // namespace qor::glue
