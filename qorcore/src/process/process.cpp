// Start and end of the framework in a process.
#include "debug/trace_output.h"
#include "error/error.h"
#include "log/log.h"
#include "module/module.h"
#include "platform/own_process.h"
#include "process/framework_options.h"

#include <cstdlib>
#include <mutex>
#include <vector>

namespace {

struct cleanup_entry {
    qorCleanupRoutine routine;
    void* context;
};

std::mutex cleanup_lock;

std::vector<cleanup_entry>& cleanup_entries() {
    static auto* const made = new std::vector<cleanup_entry>;
    return *made;
}

// Takes the most recently registered entry. A routine may register another one.
bool take_cleanup(cleanup_entry& entry) {
    const std::lock_guard hold(cleanup_lock);
    if (cleanup_entries().empty())
        return false;
    entry = cleanup_entries().back();
    cleanup_entries().pop_back();
    return true;
}

} // namespace

bool qor::glue::qorInitProcess(const char* name, qorStringArray& args, unsigned flags) noexcept {
    qor::platform::set_up_standard_streams();
    qor::platform::set_name(name);
    if (flags != 0) {
        qor::error::set(qorError_invalid_argument, {"qorInitProcess", "flags"});
        return false;
    }
    args.RemoveAt(0, 1);
    return qor::process::apply_framework_options(args);
}

void qor::glue::qorCleanup() noexcept {
    cleanup_entry entry;
    while (take_cleanup(entry))
        entry.routine(entry.context);
    qor::module::end_global_slots();
    qorDebugListen(nullptr, nullptr, nullptr);
    qorSetSignalHandler(nullptr);
    qor::log::finish();
    qor::debug::detach_file();
}

bool qor::glue::qorRegisterCleanupRoutine(qorCleanupRoutine routine, void* context) noexcept {
    if (routine == nullptr) {
        qor::error::set(qorError_invalid_argument, {"qorRegisterCleanupRoutine", "routine"});
        return false;
    }
    const std::lock_guard hold(cleanup_lock);
    cleanup_entries().push_back({routine, context});
    return true;
}

int qor::glue::qorCompareVersions(const char* left, const char* right) noexcept {
    while (*left != '\0' || *right != '\0') {
        char* left_end;
        char* right_end;
        const unsigned long long a = std::strtoull(left, &left_end, 10);
        const unsigned long long b = std::strtoull(right, &right_end, 10);
        if (a != b)
            return a < b ? -1 : 1;
        // A part that is not a number counts as 0 and is skipped.
        left_end += std::strcspn(left_end, ".");
        right_end += std::strcspn(right_end, ".");
        left = *left_end == '.' ? left_end + 1 : left_end;
        right = *right_end == '.' ? right_end + 1 : right_end;
    }
    return 0;
}
