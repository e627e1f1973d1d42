// A module of the framework: a client in a shared library of its own, for a feature that needs a heavy third-party
// library. libqor loads it from its own folder on first use and never unloads it. docs/modules.md describes modules.
#pragma once

#include "qor/glue/binding.h"

namespace qor::glue {

// The operations of a module. The table lives as long as the process; any thread may use it.
struct module_table {
    // Creates an object and returns it with one reference for the caller. `interface_name` names its interface and
    // `kind` the implementation ("IQORDigestEngine", "sha256"). Returns false, leaves *out unchanged and sets the last
    // error on failure; an unknown name is qorError_not_supported.
    bool (*create_object)(const char* interface_name, const char* kind, void** out) noexcept;
};

// The type of a module's only export, which is named glue_module_point. `table` is libqor's table. Returns null if the
// module cannot work with it. Any thread may call it.
using module_point = const module_table*(const binding_table* table) noexcept;

#ifndef QOR_INSIDE

// The first call that glue_module_point makes. From then on the module calls the framework like any other client.
// Before it, the module must not call the framework, for instance from the constructor of a static object: that call
// would look for libqor in the wrong place. Returns false if this libqor lacks operations that the module was compiled
// for; the module then calls nothing in it and returns null.
[[nodiscard]] inline bool bind_module(const binding_table* table) noexcept {
    if (table == nullptr || !is_sufficient(*table))
        return false;
    s_funcs.store(table, std::memory_order_release);
    return true;
}

#endif

} // namespace qor::glue
