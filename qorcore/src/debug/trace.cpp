// Trace codes and their switches.
#include "debug/trace_output.h"
#include "error/error.h"
#include "process/process.h"
#include "string/format_fixed.h"

#include <atomic>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace {

// The switches that everyone reads. Code 0 is what a process gets that has used up all others: never on.
qorDebugFlag flags[qorDebugMaxCodes];

// By code; a line that is traced reads them without a lock.
std::atomic<const char*> names[qorDebugMaxCodes];

struct rule {
    std::string pattern;
    bool enable;
};

// Never destroyed: objects that trace may live until the very end of the process.
struct shared_state {
    std::mutex lock;
    std::unordered_map<std::string, uint32> codes; // the texts of the names
    uint32 count = 1;                              // of names
    std::vector<rule> rules;                       // for codes to come; the last match counts
};

shared_state& state() {
    static shared_state* const made = new shared_state;
    return *made;
}

// `*` stands for any text. Linear: after a star only the latest one needs to be tried again.
bool matches(const char* pattern, const char* name) noexcept {
    const char* star = nullptr;
    const char* retry = nullptr;
    while (*name != '\0') {
        if (*pattern == '*') {
            star = pattern++;
            retry = name;
        } else if (*pattern == *name) {
            ++pattern;
            ++name;
        } else if (star != nullptr) {
            pattern = star + 1;
            name = ++retry;
        } else {
            return false;
        }
    }
    while (*pattern == '*')
        ++pattern;
    return *pattern == '\0';
}

void write_line(uint32 code, std::string_view text) noexcept {
    const char* const name = code < qorDebugMaxCodes ? names[code].load(std::memory_order_acquire) : nullptr;
    qor::debug::write_line(name != nullptr ? name : "", text);
}

void before_fork() noexcept { state().lock.lock(); }
void after_fork() noexcept { state().lock.unlock(); }

} // namespace

const qorDebugFlag* qor::glue::qorDebugGetFlags() noexcept { return flags; }

uint32 qor::glue::qorDebugAllocateCode(const char* name) noexcept {
    static const bool watching_forks = (qor::process::watch_forks(before_fork, after_fork, after_fork), true);
    (void)watching_forks;
    shared_state& shared = state();
    const std::lock_guard hold(shared.lock);
    if (const auto known = shared.codes.find(name); known != shared.codes.end())
        return known->second;
    if (shared.count == qorDebugMaxCodes) {
        qor::error::set(qorError_no_trace_codes_left, {name, std::to_string(qorDebugMaxCodes - 1).c_str()});
        return 0;
    }
    const uint32 code = shared.count++;
    names[code].store(shared.codes.emplace(name, code).first->first.c_str(), std::memory_order_release);
    for (const rule& each : shared.rules)
        if (matches(each.pattern.c_str(), name))
            flags[code].store(each.enable ? 1 : 0, std::memory_order_relaxed);
    return code;
}

bool qor::glue::qorDebugEnableCode(const char* pattern, bool enable) noexcept {
    if (pattern == nullptr || *pattern == '\0') {
        qor::error::set(qorError_invalid_argument, {"qorDebugEnableCode", "pattern"});
        return false;
    }
    const std::lock_guard hold(state().lock);
    std::vector<rule>& rules = state().rules;
    // A rule replaces its elders that say nothing beyond it, so that switching on and off for years does not grow the list. What
    // matches an elder's text with its stars as they stand matches all that the elder does.
    std::erase_if(rules, [pattern](const rule& old) { return matches(pattern, old.pattern.c_str()); });
    rules.push_back({pattern, enable});
    for (uint32 code = 1; code < state().count; ++code)
        if (matches(pattern, names[code].load(std::memory_order_relaxed)))
            flags[code].store(enable ? 1 : 0, std::memory_order_relaxed);
    return true;
}

bool qor::glue::qorDebugAttachFile(const char* path) noexcept {
    if (path == nullptr) {
        qor::debug::detach_file();
        return true;
    }
    if (const int reason = qor::debug::attach_file(path)) {
        qor::error::set_with_reason(qorError_cannot_write_file, path, reason);
        return false;
    }
    return true;
}

void qor::glue::qorDebugGetCodes(qorStringArray& out) noexcept {
    out.Empty();
    const std::lock_guard hold(state().lock);
    for (uint32 code = 1; code < state().count; ++code)
        out.Append(names[code].load(std::memory_order_relaxed));
}

void qor::glue::qorDebugGetEnabledCodes(qorStringArray& out) noexcept {
    out.Empty();
    const std::lock_guard hold(state().lock);
    for (uint32 code = 1; code < state().count; ++code)
        if (flags[code].load(std::memory_order_relaxed) != 0)
            out.Append(names[code].load(std::memory_order_relaxed));
}

void qor::glue::qorSendDebugLiteral(uint32 code, const char* text) noexcept { write_line(code, text); }

void qor::glue::qorDebugPrintV(uint32 code, const char* format, std::va_list arguments) noexcept {
    const qor::error::keep_failures keep;
    qor::string::working_memory memory;
    std::string_view text;
    qor::string::format_fixed(memory, text, format, arguments);
    write_line(code, text.data());
}

char* qor::glue::qorDebugMakeName(const char* format, std::va_list arguments) noexcept {
    qorString text;
    text.PrintV(format, arguments);
    return qor_do_strdup(text.Text(), "qorcore/src/debug/trace", __LINE__);
}

void qor::glue::qorDebugFreeName(char* name) noexcept {
    qor_do_free(name, "qorcore/src/debug/trace", __LINE__);
}
