// Components: who offers them, and how they are made.
#include "error/error.h"
#include "error/error_state.h"
#include "module/records.h"
#include "platform/no_cancellation.h"

#include <algorithm>
#include <optional>

namespace qor::module {
namespace {

// The modules that have turned out to offer a component. Never destroyed. Under the lock.
std::map<std::string, record*, std::less<>>& providers() {
    static auto& made = *new std::map<std::string, record*, std::less<>>;
    return made;
}

// A component that was found. Until this object is destroyed, nobody withdraws it.
class found_component {
public:
    found_component() = default;
    found_component(const found_component&) = delete;
    found_component& operator=(const found_component&) = delete;
    ~found_component() {
        const auto hold = take_lock();
        m_mark.reset();
    }

    // Looks for it. Under the lock.
    bool find(const registrations& in, std::string_view name) {
        const auto found = in.find(name);
        if (found == in.end())
            return false;
        m_mark.emplace(found->second.id);
        m_factory = found->second.factory;
        m_context = found->second.context;
        return true;
    }

    // Calls its function and gets the interface. Without the lock.
    bool make(const char* name, const char* interface_name, void** out) const {
        const error::apart apart;
        IQORInterface* made = nullptr;
        if (!m_factory(m_context, name, &made) || made == nullptr) {
            if (error::current().number == qorError_none)
                error::set(qorError_component_without_object, {name});
            return false;
        }
        const bool is_offered = made->QueryInterface(interface_name, out) != 0;
        made->Release();
        if (is_offered)
            apart.bring_back();
        else
            error::set(qorError_component_interface, {name, interface_name});
        return is_offered;
    }

private:
    qorComponentFactory m_factory = nullptr;
    void* m_context = nullptr;
    std::optional<running_call> m_mark{};
};

// Finds a component of the program, or of a module that is known to offer it.
bool find_registered(std::string_view name, found_component& out) {
    const auto hold = take_lock();
    if (out.find(program_components(), name))
        return true;
    const auto provider = providers().find(name);
    return provider != providers().end() && out.find(provider->second->components, name);
}

// Finds one of a module that is loaded. While a module starts, it alone can use what it has registered.
bool find_in(record& provider, std::string_view name, found_component& out) {
    const auto hold = take_lock();
    if ((!provider.loading.is_made() && !is_starting(provider)) || !out.find(provider.components, name))
        return false;
    if (provider.loading.is_made())
        providers().emplace(name, &provider);
    return true;
}

// Finds the module that offers a component. Returns null and sets the last error on failure.
record* find_provider(const char* name) {
    std::vector<record*> all;
    if (!find_modules(all))
        return nullptr;
    const auto hold = take_lock();
    const auto unread = std::ranges::find_if(all, [](const record* each) { return each->why.is_unread; });
    const record* const cannot_say = unread != all.end() ? *unread : nullptr;
    std::erase_if(all, [name](const record* each) {
        return std::ranges::find(each->facts.components, name) == each->facts.components.end();
    });
    // One that is refused counts only where there is no other; then its reason is the error.
    std::ranges::stable_partition(all, [](const record* each) { return each->loading.is_made() || !each->why; });
    if (all.empty()) {
        if (cannot_say != nullptr)
            error::set(cannot_say->why.number, {cannot_say->path.c_str(), cannot_say->why.reason.c_str()});
        else
            error::set(qorError_component_unknown, {name});
        return nullptr;
    }
    record* provider = all.front();
    if (provider->why)
        return provider;
    for (record* const each : all) {
        if (each->why)
            break;
        if (each->name != provider->name) {
            error::set(qorError_component_ambiguous, {name, provider->path.c_str(), each->path.c_str()});
            return nullptr;
        }
        // Of several files with one module, only one can be loaded.
        if (each->loading.is_made())
            provider = each;
    }
    return provider;
}

} // namespace
} // namespace qor::module

bool qor::glue::qorCreateComponent(const char* name, const char* interface_name, void** out) noexcept {
    const platform::no_cancellation whole;
    if (name == nullptr || !is_component_name(name)) {
        error::set(qorError_component_name, {name != nullptr ? name : ""});
        return false;
    }
    if (interface_name == nullptr) {
        error::set(qorError_invalid_argument, {"qorCreateComponent", "interface_name"});
        return false;
    }
    module::found_component found;
    if (!module::find_registered(name, found)) {
        module::record* const provider = module::find_provider(name);
        if (provider == nullptr)
            return false;
        if (!module::find_in(*provider, name, found)) {
            if (!module::load(*provider))
                return false;
            if (!module::find_in(*provider, name, found)) { // it has withdrawn it
                error::set(qorError_component_unregistered, {provider->name.c_str(), name});
                return false;
            }
        }
    }
    return found.make(name, interface_name, out);
}
