// Modules: what is known about them, and their way into the process.
#include "module/module.h"

#include "catalog/catalog.h"
#include "error/error.h"
#include "error/error_state.h"
#include "glue/own_table.h"
#include "message_names.h"
#include "module/records.h"
#include "platform/file_info.h"
#include "platform/no_cancellation.h"
#include "platform/own_process.h"
#include "platform/raw_file.h"
#include "platform/resources.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <set>
#include <utility>

namespace framework = qor::messages::framework;

namespace qor::module {
namespace {

// Never destroyed: modules are wanted until the process ends.
struct known_modules {
    std::map<std::string, std::unique_ptr<record>, std::less<>> by_path;
    std::map<std::string, record*, std::less<>> own;     // the framework's, by the name of the file
    std::map<std::string, record*, std::less<>> by_name; // the one that is loaded, or that was tried last
    std::vector<std::string> folders;
    registrations program;
};

known_modules& known() {
    static auto& made = *new known_modules;
    return made;
}

std::string message(uint32 number, const char* insert = nullptr) {
    const char* const inserts[10] = {insert};
    return catalog::expand(catalog::find(framework::catalog, number), inserts);
}

bool fail(const std::string& path, const refusal& why) {
    error::set(why.number, {path.c_str(), why.reason.c_str()});
    return false;
}

// ---- the file

class module_file final : public file_bytes {
public:
    int open(const std::string& path) { return m_file.open(path.c_str(), platform::raw_file::access::regular); }
    int status(platform::file_status& out) { return m_file.status(out); }
    bool read(uint64 offset, void* bytes, std::size_t size) override {
        std::size_t count = 0;
        m_failure = m_file.read_at(offset, bytes, size, &count);
        return m_failure == 0 && count == size;
    }

    // The system's error code if it was the reason of the last read that failed; 0: the file has ended.
    int failure() const noexcept { return m_failure; }

private:
    platform::raw_file m_file;
    int m_failure = 0;
};

refusal unread(int code) { return {qorError_module_damaged, error::system_reason(code), true}; }

// Opens the file, which is done before the loader does it, because the loader would wait for a pipe.
refusal open(const record& which, module_file& file, platform::file_status& status) {
    int code = file.open(which.path);
    if (platform::raw_file::is_missing(code)) {
        const std::string package = package_of(which.name);
        return {qorError_module_missing,
                package.empty() ? package : message(framework::module_package, package.c_str())};
    }
    if (code == platform::raw_file::not_regular)
        return {qorError_module_damaged, message(framework::not_a_plain_file)};
    if (code == 0)
        code = file.status(status);
    return code == 0 ? refusal() : unread(code);
}

// Reads the description and says what is against the module.
refusal examine(module_file& file, const std::string& name, std::string& section, description& facts) {
    switch (find_description(file, section)) {
    case find_result::no_library:
        if (file.failure() != 0)
            return unread(file.failure());
        return {qorError_module_damaged, message(framework::not_a_library)};
    case find_result::no_description:
        return {qorError_module_wrong, message(framework::module_no_description)};
    case find_result::found:
        break;
    }
    if (!parse_description(section, facts)) {
        facts = {};
        return {qorError_module_wrong, message(framework::module_bad_description)};
    }
    if (facts.name != name) {
        facts.components.clear(); // a copy, whose components are those of the original
        return {qorError_module_wrong, message(framework::module_other_name, facts.name.c_str())};
    }
    std::string reason = objection(facts);
    return reason.empty() ? refusal() : refusal{qorError_module_wrong, std::move(reason)};
}

bool is_same(const platform::file_status& left, const platform::file_status& right) noexcept {
    return left.device == right.device && left.id[0] == right.id[0] && left.id[1] == right.id[1] &&
           left.info.size == right.info.size && left.info.modified == right.info.modified &&
           left.changed == right.changed;
}

// Brings a record up to date with its file, unless the module is loaded or is about to be.
void examine(record& which) {
    module_file file;
    platform::file_status status{};
    refusal why = open(which, file, status);
    {
        const auto hold = take_lock();
        if (!which.loading.is_unmade() || (!why && which.is_examined && is_same(which.file, status)))
            return;
    }
    description facts;
    std::string section;
    const bool is_open = !why;
    if (is_open)
        why = examine(file, which.name, section, facts);
    facts.bytes = {};
    const auto hold = take_lock();
    if (!which.loading.is_unmade())
        return;
    which.is_examined = is_open && !why.is_unread;
    which.file = status;
    which.facts = std::move(facts);
    which.why = std::move(why);
}

// ---- loading

// Gives the file to the loader and returns the module's table; null: `why` says why not.
const glue::module_table* enter(const std::string& path, const description& facts, refusal& why) {
    std::string reason;
    void* library;
    {
        const in_loader meanwhile;
        library = load_library(path, reason);
    }
    if (library == nullptr) {
        why = {qorError_module_damaged, reason};
        return nullptr;
    }
    auto* const entry = reinterpret_cast<glue::module_point*>(find_export(library, "glue_module_point"));
    if (entry == nullptr) {
        why = {qorError_module_wrong, message(framework::module_no_entry)};
        return nullptr;
    }
    const glue::module_table* const table = entry(&glue::own_table);
    if (table == nullptr)
        why = {qorError_module_wrong, message(framework::module_refuses)};
    else if (table->description == nullptr || table->description->size != facts.bytes.size() ||
             std::memcmp(table->description, facts.bytes.data(), facts.bytes.size()) != 0) {
        // Another file has taken the place of the one that was examined.
        why = {qorError_module_wrong, message(framework::module_bad_description)};
        return nullptr;
    }
    return table;
}

// What the calling thread starts; the innermost one.
thread_local const record* s_starting = nullptr;

// Lets the module register its components.
bool start(record& which, const glue::module_table& table, const description& facts,
           zetSmartPointer<IQORModuleHelper>& helper) {
    {
        const auto hold = take_lock();
        which.components.clear(); // of an attempt that has failed, or that a fork has cut off
    }
    if (!make_helper(which, helper))
        return false;
    if (table.start != nullptr) {
        const error::apart apart;
        const record* const outer = std::exchange(s_starting, &which);
        const bool is_started = table.start(*helper);
        s_starting = outer;
        if (!is_started) {
            error::set(qorError_module_not_started, {which.name.c_str(), last_error_text().c_str()});
            return false;
        }
        apart.bring_back();
    }
    const auto hold = take_lock();
    for (const std::string& each : facts.components)
        if (!which.components.contains(each)) {
            error::set(qorError_component_unregistered, {which.name.c_str(), each.c_str()});
            return false;
        }
    return true;
}

// Returns a module with the same name that is loaded, or is about to be; null if this one may be loaded. Under the
// lock.
const record* claim_name(record& which) {
    record*& named = known().by_name[which.name];
    if (named != nullptr && named != &which && !named->loading.is_unmade())
        return named;
    named = &which;
    return nullptr;
}

// What the thread does whose turn it is. Returns null and sets the last error on failure, and `why` if the file is at
// fault.
const glue::module_table* load_now(record& which, refusal& why, zetSmartPointer<IQORModuleHelper>& helper) {
    module_file file;
    platform::file_status status{};
    std::string section;
    description facts;
    why = open(which, file, status);
    if (!why)
        why = examine(file, which.name, section, facts);
    if (!why) {
        description kept = facts;
        kept.bytes = {};
        auto hold = take_lock();
        // The helper checks against what stands here.
        which.facts = std::move(kept);
        which.file = status;
        which.is_examined = true;
        const record* const other = claim_name(which);
        hold.unlock();
        if (other != nullptr)
            why = taken_by(*other);
    }
    const glue::module_table* const table = why ? nullptr : enter(which.path, facts, why);
    if (why) {
        fail(which.path, why);
        return nullptr;
    }
    if (start(which, *table, facts, helper))
        return table;
    why = {static_cast<qorErrorNumber>(error::current().number), last_error_text()};
    return nullptr;
}

// Whether the name of a file can be that of a module: of a library that is not hidden, and is none of the framework's
// other libraries, which lie beside its modules in an installation.
bool is_candidate(std::string_view file) noexcept {
    const std::string_view extension = file_extension;
    return file.size() > extension.size() && file.ends_with(extension) && file.front() != '.' &&
           file.substr(0, file.size() - extension.size()) != "libqor" && !file.starts_with("libqor-");
}

// Adds the libraries of a folder, sorted by their names. One without such a folder is an empty one.
bool list_folder(const std::string& folder, std::vector<record*>& out) {
    qorFileInfo info;
    if (platform::means_no_file(platform::file_info(folder.c_str(), true, info)))
        return true;
    zetSmartPointer<IQORFolderContents> contents;
    if (!qorGetFolderContents(folder.c_str(), contents.Out()))
        return false;
    std::set<std::string> names;
    for (const qorFolderEntry& each : contents->Entries())
        if (each.kind != qorFileKind::folder && is_candidate({each.text, each.length}))
            names.emplace(each.text, each.length - std::strlen(file_extension));
    const auto hold = take_lock();
    for (const std::string& each : names)
        out.push_back(&record_of(folder, each));
    return true;
}

} // namespace

record& record_of(const std::string& folder, const std::string& name) {
    std::unique_ptr<record>& place = known().by_path[folder + name];
    if (place == nullptr)
        place = std::make_unique<record>(folder, name);
    return *place;
}

std::vector<std::string>& folders() {
    static auto& list = *[] {
        auto* const made = new std::vector<std::string>{platform::resource_folder()};
        // A program's own folder may have the name of an installation's.
        if (platform::is_installed(platform::library_folder()))
            made->push_back(made->front() + "qor/");
        return made;
    }();
    return list;
}

registrations& program_components() { return known().program; }

refusal taken_by(const record& other) {
    return {qorError_module_wrong, message(framework::module_name_taken, other.path.c_str())};
}

std::string with_separator(std::string folder) {
    if (folder.find_last_of(path_separators) + 1 != folder.size())
        folder += '/';
    return folder;
}

std::string last_error_text() {
    qorString text;
    glue::qorGetLastError_text(text);
    return {text.Text(), text.Length()};
}

bool load(record& which) {
    {
        auto hold = take_lock();
        const turn::outcome turn = which.loading.enter(hold);
        if (turn != turn::outcome::mine) {
            if (turn == turn::outcome::circular)
                error::set(qorError_module_circular, {which.name.c_str()});
            return turn == turn::outcome::made;
        }
    }
    refusal why;
    zetSmartPointer<IQORModuleHelper> helper;
    const glue::module_table* const table = load_now(which, why, helper);
    {
        const auto hold = take_lock();
        which.table = table;
        which.why = std::move(why);
        if (table == nullptr)
            which.components.clear();
        else
            std::swap(which.helper, helper);
        which.loading.leave(table != nullptr);
    }
    return table != nullptr; // the helper of a failed attempt ends here, without the lock
}

bool is_starting(const record& which) noexcept { return s_starting == &which; }

bool find_modules(std::vector<record*>& out) {
    std::vector<std::string> all;
    {
        const auto hold = take_lock();
        all = folders();
    }
    out.clear();
    for (const std::string& folder : all)
        if (!list_folder(folder, out))
            return false;
    for (record* const each : out)
        examine(*each);
    const auto hold = take_lock();
    // A file that has vanished is no module any more; one that is loaded stays one.
    std::erase_if(out, [](const record* each) {
        return each->why.number == qorError_module_missing && !each->loading.is_made();
    });
    for (const auto& [path, each] : known().by_path)
        if (each->loading.is_made() && std::ranges::find(out, each.get()) == out.end())
            out.push_back(each.get());
    return true;
}

bool create_object(const char* module, const char* interface_name, const char* kind, void** out) noexcept {
    const platform::no_cancellation whole;
    record* which = nullptr;
    {
        const auto hold = take_lock();
        const auto found = known().own.find(std::string_view(module));
        if (found != known().own.end())
            which = found->second;
    }
    if (which == nullptr) {
        const std::string file = std::string(module).append(file_extension);
        const std::string path = platform::find_resource(file);
        const auto hold = take_lock();
        which = &record_of(path.substr(0, path.size() - file.size()), module);
    }
    if (!load(*which))
        return false;
    {
        const auto hold = take_lock();
        known().own.emplace(module, which);
    }
    if (which->table->create_object == nullptr)
        return fail(which->path, {qorError_module_wrong, message(framework::module_no_entry)});
    return which->table->create_object(interface_name, kind, out);
}

} // namespace qor::module
