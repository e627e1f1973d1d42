// A module: a client in a shared library of its own, which libqor loads when something in it is first wanted, and never
// unloads. docs/modules.md shows how a module is written.
#pragma once

#include "qor/glue/binding.h"
#include "qor/glue/module_description.h"

namespace qor::glue {

// The operations of a module. The table lives as long as the process; any thread may use it.
struct module_table {
    const module_description* description;

    // For what libqor itself wants from its modules; null otherwise. Creates an object and returns it with one
    // reference for the caller. `interface_name` names its interface and `kind` the implementation
    // ("IQORDigestEngine", "sha256"). Returns false, leaves *out unchanged and sets the last error on failure; an
    // unknown name is qorError_not_supported.
    bool (*create_object)(const char* interface_name, const char* kind, void** out) noexcept;

    // Called once, after the module is bound and before anything else, to register the components. Returns false and
    // sets the last error if the module cannot work; it is called again when the module is wanted again. May be null.
    bool (*start)(IQORModuleHelper* helper) noexcept;
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

// The description and the entry of a module, once in each module. NAME is that of its file without the system's
// extension, VERSION consists of dotted numbers, START is the function above, and the texts behind it are the names of
// the components that it registers:
//
//     QOR_MODULE("vendor-scanner", "1.2.0", start, "vendor.scanner.flatbed", "vendor.scanner.sheet")
#define QOR_MODULE(NAME, VERSION, START, ...) QOR_MODULE_TABLE(NAME, VERSION, nullptr, START __VA_OPT__(, ) __VA_ARGS__)

// The same for a module of libqor's own, whose version is that of the framework.
#define QOR_OWN_MODULE(NAME, CREATE_OBJECT, START)                                                                     \
    QOR_MODULE_TABLE(NAME, qor::glue::framework_version, CREATE_OBJECT, START)

#define QOR_MODULE_TABLE(NAME, VERSION, CREATE_OBJECT, START, ...)                                                     \
    QOR_IN_SECTION(QOR_MODULE_SECTION)                                                                                 \
    static constinit const auto qor_module_description =                                                               \
        qor::glue::describe_module(NAME, VERSION, qor::glue::framework_version __VA_OPT__(, ) __VA_ARGS__);            \
    static constinit const qor::glue::module_table qor_module_table = {&qor_module_description.head, CREATE_OBJECT,    \
                                                                       START};                                         \
    extern "C" QOR_EXPORTED const qor::glue::module_table* glue_module_point(                                          \
        const qor::glue::binding_table* library) noexcept {                                                            \
        return qor::glue::bind_module(library) ? &qor_module_table : nullptr;                                          \
    }
