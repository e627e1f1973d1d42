#include "module/module.h"

#include "catalog/catalog.h"
#include "error/error.h"
#include "glue/own_table.h"
#include "message_names.h"
#include "platform/raw_file.h"
#include "platform/resources.h"
#include "qor/glue/module.h"

#include <map>
#include <mutex>

namespace framework = qor::messages::framework;

namespace {

using qor::glue::module_point;
using qor::glue::module_table;

// Checks the file before the loader opens it, because the loader would block on a pipe. Returns false and sets the last
// error if the file is unusable.
bool is_usable(const std::string& path) {
    using qor::platform::raw_file;
    const int code = raw_file().open(path.c_str(), raw_file::access::regular);
    if (raw_file::is_missing(code))
        qor::error::set(qorError_module_missing, {path.c_str()});
    else if (code == raw_file::not_regular)
        qor::error::set(
            qorError_module_damaged,
            {path.c_str(), std::string(qor::catalog::find(framework::catalog, framework::not_a_plain_file)).c_str()});
    else if (code != 0)
        qor::error::set_with_reason(qorError_module_damaged, path.c_str(), code);
    return code == 0;
}

// Returns null and sets the last error on failure.
const module_table* load(const std::string& file) {
    const std::string path = qor::platform::find_resource(file);
    if (!is_usable(path))
        return nullptr;
    std::string reason;
    void* const library = qor::module::load_library(path, reason);
    if (library == nullptr) {
        qor::error::set(qorError_module_damaged, {path.c_str(), reason.c_str()});
        return nullptr;
    }
    auto* const entry = reinterpret_cast<module_point*>(qor::module::find_export(library, "glue_module_point"));
    const module_table* const table = entry != nullptr ? entry(&qor::glue::own_table) : nullptr;
    if (table == nullptr)
        qor::error::set(qorError_module_wrong, {path.c_str()});
    return table;
}

// A loaded module stays loaded. A module that failed is tried again, because it may have been repaired meanwhile.
const module_table* find(const char* module) {
    static std::mutex lock;
    static auto& loaded = *new std::map<std::string, const module_table*>;
    const std::string file = module + std::string(qor::module::file_extension);
    const std::lock_guard hold(lock);
    const module_table*& table = loaded[file];
    if (table == nullptr)
        table = load(file);
    return table;
}

} // namespace

bool qor::module::create_object(const char* module, const char* interface_name, const char* kind, void** out) noexcept {
    const module_table* const table = find(module);
    return table != nullptr && table->create_object(interface_name, kind, out);
}
