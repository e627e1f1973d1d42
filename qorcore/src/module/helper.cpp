// What modules and programs use to offer components.
#include "catalog/catalog.h"
#include "error/error.h"
#include "memory/allocator.h"
#include "module/records.h"
#include "platform/end_of_process.h"
#include "platform/no_cancellation.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <new>

namespace qor::module {
namespace {

constexpr char source[] = "qorcore/src/module/helper";

// That of a module lives as long as the process, and so has no place in the allocation log.
class module_helper : public IQORModuleHelper {
public:
    // `of` is null for a helper of the program.
    module_helper(record* of, std::string name, std::string version, std::string folder) noexcept
        : m_of(of), m_name(std::move(name)), m_version(std::move(version)), m_folder(std::move(folder)) {}
    module_helper(const module_helper&) = delete;
    module_helper& operator=(const module_helper&) = delete;
    virtual ~module_helper() {
        auto hold = take_lock();
        registrations& all = table();
        for (auto each = all.begin(); each != all.end();)
            // Another thread may change the table while this one waits.
            each = each->second.owner == this ? (withdraw(each, hold), all.begin()) : std::next(each);
    }

    void AddRef() noexcept override { ++m_references; }
    void Release() noexcept override {
        if (--m_references == 0)
            delete this;
    }
    int QueryInterface(const char* name, void** out) noexcept override {
        if (std::strcmp(name, "IQORModuleHelper") != 0 && std::strcmp(name, "IQORInterface") != 0)
            return 0;
        *out = static_cast<IQORModuleHelper*>(this);
        AddRef();
        return 1;
    }

    void GetName(qorString& out) noexcept override { out.Set(m_name.c_str()); }
    void GetVersion(qorString& out) noexcept override { out.Set(m_version.c_str()); }
    void GetFolder(qorString& out) noexcept override { out.Set(m_folder.c_str()); }

    bool RegisterComponent(const char* name, qorComponentFactory factory, void* context) noexcept override {
        if (name == nullptr || !glue::is_component_name(name)) {
            error::set(qorError_component_name, {name != nullptr ? name : ""});
            return false;
        }
        if (factory == nullptr) {
            error::set(qorError_invalid_argument, {"RegisterComponent", "factory"});
            return false;
        }
        const auto hold = take_lock();
        if (m_of != nullptr && std::ranges::find(m_of->facts.components, name) == m_of->facts.components.end()) {
            error::set(qorError_component_undeclared, {m_name.c_str(), name});
            return false;
        }
        static unsigned long long last_id = 0;
        const auto [place, is_new] =
            table().try_emplace(name, registration{factory, context, this, m_name, last_id + 1});
        if (!is_new) {
            error::set(qorError_component_taken, {name, place->second.owner_name.c_str()});
            return false;
        }
        ++last_id;
        return true;
    }

    bool UnregisterComponent(const char* name) noexcept override {
        const platform::no_cancellation whole;
        auto hold = take_lock();
        const auto found = table().find(std::string_view(name != nullptr ? name : ""));
        if (found == table().end() || found->second.owner != this) {
            error::set(qorError_component_not_own, {m_name.c_str(), name != nullptr ? name : ""});
            return false;
        }
        withdraw(found, hold);
        return true;
    }

    bool AddCatalog(const char* catalog, const qorCatalogMessage* messages, uint32 count) noexcept override {
        if (catalog == nullptr || !glue::is_module_name(catalog)) {
            error::set(qorError_invalid_argument, {"AddCatalog", "catalog"});
            return false;
        }
        std::vector<catalog::message> copies;
        for (uint32 i = 0; i < count; ++i) {
            const qorCatalogMessage& each = messages[i];
            if (each.text == nullptr || *each.text == '\0' || (i != 0 && each.number <= copies.back().number)) {
                error::set(qorError_invalid_argument, {"AddCatalog", "messages"});
                return false;
            }
            copies.push_back({each.number, each.text});
        }
        if (catalog::add(catalog, copies, m_folder))
            return true;
        error::set(qorError_catalog_taken, {catalog});
        return false;
    }

private:
    // Under the lock.
    registrations& table() noexcept { return m_of != nullptr ? m_of->components : program_components(); }

    // Removes a component and waits until no other thread is inside its function.
    void withdraw(registrations::iterator which, std::unique_lock<std::mutex>& hold) {
        const unsigned long long id = which->second.id;
        table().erase(which);
        while (!running_call::is_inside() && running_call::is_running(id) && !platform::other_threads_are_gone())
            wait_for_change(hold);
    }

    record* const m_of;
    const std::string m_name;
    const std::string m_version;
    const std::string m_folder;
    std::atomic<uint32> m_references{1};
};

// That of a program, which has to release it.
class program_helper final : public module_helper {
public:
    program_helper(std::string name, std::string version, std::string folder) noexcept
        : module_helper(nullptr, std::move(name), std::move(version), std::move(folder)) {
        qor::glue::announce(this, "qorcore.module_helper");
    }

    static void* operator new(std::size_t size, const char* file, int line) {
        return glue::or_throw(glue::qor_do_new(size, file, line));
    }
    static void operator delete(void* object) noexcept { glue::qor_do_delete(object); }
    static void operator delete(void* object, const char*, int) noexcept { glue::qor_do_delete(object); }
};

} // namespace

bool make_helper(record& of, zetSmartPointer<IQORModuleHelper>& out) {
    std::string version;
    {
        const auto hold = take_lock();
        version = of.facts.version;
    }
    IQORModuleHelper* const made = new (std::nothrow) module_helper(&of, of.name, version, of.folder);
    if (made == nullptr) {
        error::set(qorError_out_of_memory);
        return false;
    }
    out.AttachNew(made);
    return true;
}

} // namespace qor::module

bool qor::glue::qorCreateModuleHelper(const char* name, const char* version, const char* folder,
                                      IQORModuleHelper** out) noexcept {
    const char* wrong = nullptr;
    if (name == nullptr || !is_module_name(name))
        wrong = "name";
    else if (version == nullptr || !is_version(version))
        wrong = "version";
    else if (folder != nullptr && !qorIsAbsolutePath(folder))
        wrong = "folder";
    if (wrong != nullptr) {
        error::set(qorError_invalid_argument, {"qorCreateModuleHelper", wrong});
        return false;
    }
    qorString own;
    if (folder == nullptr && !glue::qorGetFolderPath(qorFolder_qor_executable, own))
        return false;
    return memory::make<module::program_helper>(module::source, __LINE__, out, name, version,
                                                module::with_separator(folder != nullptr ? folder : own.Text()));
}
