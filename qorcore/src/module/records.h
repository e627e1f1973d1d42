// Inside the library: what is known about the modules of this process.
#pragma once

#include "module/description.h"
#include "module/module.h"
#include "module/turns.h"
#include "platform/file_status.h"
#include "qor/glue/module.h"
#include "qor/qor.h"

#include <functional> // std::less<>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace qor::module {

struct registration {
    qorComponentFactory factory;
    void* context;
    const IQORModuleHelper* owner;
    std::string owner_name;
    unsigned long long id; // no other one has had it
};
using registrations = std::map<std::string, registration, std::less<>>;

// Why a module cannot be used: an error whose inserts are the path and the reason. No error: nothing is against it.
struct refusal {
    qorErrorNumber number = qorError_none;
    std::string reason{};
    bool is_unread = false; // the system did not let the file be read, so nobody knows what it offers

    explicit operator bool() const noexcept { return number != qorError_none; }
};

// A module, loaded or not. Records are never destroyed. Everything but the first three is under the lock; `helper` and
// `table` do not change any more once the module is loaded.
struct record {
    record(std::string in, std::string base)
        : path(in + base + file_extension), folder(std::move(in)), name(std::move(base)) {}

    const std::string path;
    const std::string folder; // with a separator at its end
    const std::string name;   // of the file, without the system's extension

    turn loading{};
    const glue::module_table* table = nullptr;
    zetSmartPointer<IQORModuleHelper> helper{};
    registrations components{};

    // What its file says: the present one, or the one that was loaded.
    bool is_examined = false;
    platform::file_status file{};
    description facts{}; // without bytes
    refusal why{};
};

// Returns the record of the module with this name in a folder, whether the file exists or not. Under the lock.
record& record_of(const std::string& folder, const std::string& name);

// Loads a module and starts it, unless it is loaded. Returns false and sets the last error on failure; the next call
// tries again. Without the lock.
bool load(record& which);

// Whether the calling thread is inside the start of this module, and not, within that, inside the start of another.
bool is_starting(const record& which) noexcept;

// The folders in which components are looked for, each with a separator at its end. Under the lock.
std::vector<std::string>& folders();

// Gets the modules in these folders, in order, each file examined, and behind them those that were loaded from anywhere
// else. Returns false and sets the last error if a folder exists and cannot be listed. Without the lock.
bool find_modules(std::vector<record*>& out);

// The components of the program itself. Under the lock.
registrations& program_components();

// Makes the helper of a module. Returns false and sets the last error if there is no memory.
bool make_helper(record& of, zetSmartPointer<IQORModuleHelper>& out);

// Why a module cannot be used whose name another one has.
refusal taken_by(const record& other);

// Returns the path of a folder with a separator at its end.
std::string with_separator(std::string folder);

// The text of this thread's last error.
std::string last_error_text();

} // namespace qor::module
