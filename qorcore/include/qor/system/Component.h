// Components: objects that are made by name, by the program itself or by a module, which is loaded when one of its
// components is first wanted. docs/components.md has examples; docs/modules.md shows how a module is written.
//
// The name of a component has at least two parts of letters, digits, '_' and '-', with dots between them, and at most
// 255 bytes: "vendor.scanner.flatbed". Names are compared byte by byte. A component of the program comes before one of
// the same name in a module. Two modules with the same component are an error of everybody who wants it.
//
// A module is a library whose description, which is data in its file, names what it was compiled against and the
// components that it offers. Modules lie in the folder "qor" beside libqor and in the folders that the program adds; no
// other folder is searched. A module is never unloaded.
#pragma once

#include "qor/glue/impl_common.h"
#include "qor/system/Error.h"
#include "qor/system/Interface.h"
#include "qor/system/StringArray.h"
#include "qor/system/template/SmartPointer.h"

#include <concepts>
#include <exception>
#include <new>
#include <span>

// Makes a component: sets *out to a new object, with one reference for the caller. On failure it returns false and sets
// the last error. It may be called on any thread, on several at once, and lets no exception out. It may create other
// components.
using qorComponentFactory = bool (*)(void* context, const char* name, IQORInterface** out) noexcept;

// A message of a catalog in English, with inserts {1} to {10}.
struct qorCatalogMessage {
    uint32 number;    // unique in its catalog
    const char* text; // UTF-8
};

namespace qor::glue {

// Makes an object of this class. For qorComponentFactory.
template <class OBJECT>
bool make_component(void*, const char* name, IQORInterface** out) noexcept {
    try {
        *out = QOR_NEW OBJECT;
        return true;
    } catch (const std::bad_alloc&) {
        qorSetLastError(qorError_out_of_memory);
    } catch (const std::exception& thrown) {
        qorSetLastError(qorError_component_failed, name, thrown.what());
    } catch (...) {
        qorSetLastError(qorError_component_without_object, name);
    }
    return false;
}

// The name of an interface, as clients pass it to QueryInterface: that of its class, with its namespaces.
template <class INTERFACE>
inline constexpr joined_text<type_name<INTERFACE>().size()> interface_text{{type_name<INTERFACE>()}};

} // namespace qor::glue

// What a module, or a program, needs to offer components: they are registered as long as this object lives. A module
// gets its own before anything else is called in it, and the framework keeps that one.
class IQORModuleHelper : public IQORInterface {
public:
    // Name and version of the module, and the folder of its files, with a separator at its end.
    virtual void GetName(qorString& out) noexcept = 0;
    virtual void GetVersion(qorString& out) noexcept = 0;
    virtual void GetFolder(qorString& out) noexcept = 0;

    // Registers a component. A module can register only what its description names. `context` is handed to `factory`.
    [[nodiscard]] virtual bool RegisterComponent(const char* name, qorComponentFactory factory,
                                                 void* context) noexcept = 0;
    // Withdraws a component that this helper has registered. When this returns, no other thread is inside its function
    // and none will be, so `context` can be freed. Called from inside a component's function, it does not wait. Objects
    // that were made live on. Returns false if this helper has not registered it (last error).
    virtual bool UnregisterComponent(const char* name) noexcept = 0;

    // Adds a catalog of messages, for qorString::Format, fputmsg and their like. `messages` are sorted by number, none
    // is empty, and all are copied. Other languages lie in the helper's folder, in UTF-8 files with a line for each
    // number and its text: `vendor-scanner.de.msg` with `1 {1} Zeilen`. A text whose inserts are not those of the
    // English one does not count. A catalog stays until the process ends; adding the same one again changes nothing.
    [[nodiscard]] virtual bool AddCatalog(const char* catalog, const qorCatalogMessage* messages,
                                          uint32 count) noexcept = 0;

    // Registers a class that is derived from qor::object, or from another implementation of one interface whose objects
    // are created with QOR_NEW. Each component is a new object. An exception of its constructor is an error of whoever
    // creates it.
    template <class OBJECT>
    requires std::convertible_to<OBJECT*, IQORInterface*>
    [[nodiscard]] bool Register(const char* name) noexcept {
        return RegisterComponent(name, &qor::glue::make_component<OBJECT>, nullptr);
    }
    // The same as above, for an array of messages.
    [[nodiscard]] bool AddCatalog(const char* catalog, std::span<const qorCatalogMessage> messages) noexcept {
        return AddCatalog(catalog, messages.data(), static_cast<uint32>(messages.size()));
    }

protected:
    ~IQORModuleHelper() = default;
};

// Gets a helper for the program, or for a library of its own kind that is no module. `folder` is the absolute path of
// its files; null for the folder of the running program. Returns false if the name or the version is not one (last
// error).
[[nodiscard]] inline bool qorCreateModuleHelper(const char* name, const char* version, const char* folder,
                                                IQORModuleHelper** out) noexcept {
    return qor::glue::qorCreateModuleHelper(name, version, folder, out);
}

// Creates a component and gets an interface of it, with a reference for the caller. The first component of a module
// loads the module; other threads that want something of it wait until it has started. Returns false and leaves *out
// unchanged on failure.
[[nodiscard]] inline bool qorCreateComponent(const char* name, const char* interface_name, void** out) noexcept {
    return qor::glue::qorCreateComponent(name, interface_name, out);
}

// The same, where the name of the interface is that of its class: `qorCreateComponent("vendor.scanner.flatbed",
// scanner.Out())`.
template <class INTERFACE>
[[nodiscard]] bool qorCreateComponent(const char* name, INTERFACE** out) noexcept {
    void* made = nullptr;
    if (!qor::glue::qorCreateComponent(name, qor::glue::interface_text<INTERFACE>.text, &made))
        return false;
    *out = static_cast<INTERFACE*>(made);
    return true;
}

// What is known about a module.
enum class qorModuleState : uint32 {
    available, // it can be loaded: its description fits this library
    loaded,
    refused, // `reason` says why; the next who wants it tries again
};

// A module, as long as its list lives.
struct qorModuleInfo {
    const char* path;              // of its file
    const char* name;              // the file's name without the system's extension
    const char* version;           // empty if its description cannot be read
    const char* framework;         // the version of the framework that it was compiled with; empty likewise
    qorModuleState state;          // at the time of the list
    const char* reason;            // empty unless it is refused
    const char* const* components; // `component_count` names; see Components()
    uint32 component_count;        // 0 if its description cannot be read

    // The names of the components that it offers.
    std::span<const char* const> Components() const noexcept { return {components, component_count}; }
};

// The modules at one moment. Any thread may use it.
class IQORModuleList : public IQORInterface {
public:
    // The number of modules.
    virtual uint32 GetCount() noexcept = 0;
    // The first of them; they lie one behind the other, in the order in which they are searched.
    virtual const qorModuleInfo* GetModules() noexcept = 0;

    // For range-for.
    std::span<const qorModuleInfo> Modules() noexcept { return {GetModules(), GetCount()}; }

protected:
    ~IQORModuleList() = default;
};

// The modules of this process. Any thread may use it.
class IQORModuleManager : public IQORInterface {
public:
    // Makes the modules of another folder available, behind those of the folders before it. Whoever can write there can
    // make this process do anything. Returns false if the path is not absolute or the folder cannot be listed.
    [[nodiscard]] virtual bool AddFolder(const char* path) noexcept = 0;
    // Gets all folders, that of libqor first.
    virtual void GetFolders(qorStringArray& out) noexcept = 0;

    // Gets all modules. Reads the folders and the descriptions of files that have changed; loads nothing. Returns false
    // if a folder exists and cannot be listed.
    [[nodiscard]] virtual bool GetModules(IQORModuleList** out) noexcept = 0;
    // Gets the names of all components, sorted: those of the program, and of all modules that are not refused.
    [[nodiscard]] virtual bool GetComponents(qorStringArray& out) noexcept = 0;

    // Loads a module by its name, if it is not loaded: for a program that wants to know at its start that all is well.
    [[nodiscard]] virtual bool LoadModule(const char* name) noexcept = 0;

protected:
    ~IQORModuleManager() = default;
};

// Gets the manager, which lives as long as the process.
inline void qorGetModuleManager(IQORModuleManager** out) noexcept { qor::glue::qorGetModuleManager(out); }
