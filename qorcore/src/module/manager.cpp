// What programs can ask about modules.
#include "error/error.h"
#include "memory/allocator.h"
#include "module/records.h"
#include "platform/no_cancellation.h"
#include "qor/system/template/Object.h"

#include <algorithm>
#include <cstring>
#include <deque>
#include <set>

namespace qor::module {
namespace {

constexpr char source[] = "qorcore/src/module/manager";

class module_list final : public object<IQORModuleList> {
public:
    module_list() noexcept : object("qorcore.module_list", "IQORModuleList") {}

    // Under the lock.
    void add(const record& from, refusal why) {
        texts& copy = m_texts.emplace_back();
        copy.path = from.path;
        copy.name = from.name;
        copy.version = from.facts.version;
        copy.framework = from.facts.framework;
        copy.reason = std::move(why.reason);
        copy.components = from.facts.components;
        for (const std::string& each : copy.components)
            copy.names.push_back(each.c_str());
        const qorModuleState state = from.loading.is_made() ? qorModuleState::loaded
                                     : why                  ? qorModuleState::refused
                                                            : qorModuleState::available;
        m_modules.push_back({copy.path.c_str(), copy.name.c_str(), copy.version.c_str(), copy.framework.c_str(), state,
                             copy.reason.c_str(), copy.names.data(), static_cast<uint32>(copy.names.size())});
    }

    uint32 GetCount() noexcept override { return static_cast<uint32>(m_modules.size()); }
    const qorModuleInfo* GetModules() noexcept override { return m_modules.data(); }

private:
    struct texts {
        std::string path, name, version, framework, reason;
        std::vector<std::string> components;
        std::vector<const char*> names;
    };

    std::deque<texts> m_texts; // whose elements do not move
    std::vector<qorModuleInfo> m_modules;
};

// What is against each of these modules, in their order. Of several files with one module, only one can be used: the
// one that is loaded, or else the first.
std::vector<refusal> refusals(const std::vector<record*>& all) {
    std::vector<refusal> found(all.size());
    std::vector<const record*> others(all.size()); // the one with the same name, where that is the reason
    {
        const auto hold = take_lock();
        std::map<std::string_view, const record*> usable;
        for (const record* const each : all)
            if (const record*& place = usable[each->name]; place == nullptr || each->loading.is_made())
                place = each;
        for (std::size_t i = 0; i < all.size(); ++i) {
            if (all[i]->loading.is_made())
                continue;
            found[i] = all[i]->why;
            if (const record* const other = usable[all[i]->name]; other != all[i] && !found[i])
                others[i] = other;
        }
    }
    for (std::size_t i = 0; i < all.size(); ++i)
        if (others[i] != nullptr)
            found[i] = taken_by(*others[i]);
    return found;
}

// Has no state of its own, so it needs no references.
class module_manager final : public IQORModuleManager {
public:
    void AddRef() noexcept override {}
    void Release() noexcept override {}
    int QueryInterface(const char* name, void** out) noexcept override {
        if (std::strcmp(name, "IQORModuleManager") != 0 && std::strcmp(name, "IQORInterface") != 0)
            return 0;
        *out = static_cast<IQORModuleManager*>(this);
        return 1;
    }

    bool AddFolder(const char* path) noexcept override {
        if (path == nullptr || !qorIsAbsolutePath(path)) {
            error::set(qorError_module_folder, {path != nullptr ? path : ""});
            return false;
        }
        zetSmartPointer<IQORFolderContents> contents;
        if (!qorGetFolderContents(path, contents.Out()))
            return false;
        std::string folder = with_separator(path);
        const auto hold = take_lock();
        if (std::ranges::find(folders(), folder) == folders().end())
            folders().push_back(std::move(folder));
        return true;
    }

    void GetFolders(qorStringArray& out) noexcept override {
        std::vector<std::string> all;
        {
            const auto hold = take_lock();
            all = folders();
        }
        out.Empty();
        for (const std::string& each : all)
            out.Append(each.c_str());
    }

    bool GetModules(IQORModuleList** out) noexcept override {
        const platform::no_cancellation whole;
        std::vector<record*> all;
        if (!find_modules(all))
            return false;
        module_list* made = nullptr;
        if (!memory::make<module_list>(source, __LINE__, &made))
            return false;
        const std::vector<refusal> why = refusals(all);
        const auto hold = take_lock();
        for (std::size_t i = 0; i < all.size(); ++i)
            made->add(*all[i], why[i]);
        *out = made;
        return true;
    }

    bool GetComponents(qorStringArray& out) noexcept override {
        const platform::no_cancellation whole;
        std::vector<record*> all;
        if (!find_modules(all))
            return false;
        const std::vector<refusal> why = refusals(all);
        std::set<std::string> names;
        {
            const auto hold = take_lock();
            for (const auto& [name, how] : program_components())
                names.insert(name);
            for (std::size_t i = 0; i < all.size(); ++i)
                if (!why[i])
                    names.insert(all[i]->facts.components.begin(), all[i]->facts.components.end());
        }
        out.Empty();
        for (const std::string& each : names)
            out.Append(each.c_str());
        return true;
    }

    bool LoadModule(const char* name) noexcept override {
        const platform::no_cancellation whole;
        std::vector<record*> all;
        if (!find_modules(all))
            return false;
        record* wanted = nullptr;
        {
            const auto hold = take_lock();
            for (record* const each : all)
                if (each->name == std::string_view(name != nullptr ? name : "") &&
                    (wanted == nullptr || each->loading.is_made()))
                    wanted = each;
        }
        if (wanted == nullptr) {
            error::set(qorError_module_unknown, {name != nullptr ? name : ""});
            return false;
        }
        return load(*wanted);
    }
};

constinit module_manager the_manager;

} // namespace
} // namespace qor::module

void qor::glue::qorGetModuleManager(IQORModuleManager** out) noexcept { *out = &module::the_manager; }
