// Trace codes and their switches.
#include "debug/trace_output.h"
#include "debug/trace_pattern.h"
#include "error/error.h"
#include "platform/own_process.h"
#include "string/format_fixed.h"

#include <algorithm>
#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace {

// The switches, which every client reads. Code 0 is never on; it is returned when all other codes are taken.
qorDebugFlag flags[qorDebugMaxCodes];

// The names by code. Tracing a line reads them without a lock.
std::atomic<const char*> names[qorDebugMaxCodes];

// A call that switched all codes that match a pattern. The numbers give the order of the calls.
struct rule {
    qor::debug::trace_pattern pattern;
    bool enable;
    uint64 number;
};
constexpr std::size_t most_rules = 256;
using rule_list = std::vector<std::shared_ptr<const rule>>; // a list never changes; it is replaced

// Never destroyed: objects that trace may live until the very end of the process.
struct shared_state {
    std::mutex switching; // held by one switch at a time; there may be many, also from strangers
    // The process's own threads take only this lock. It is held no longer than a look-up of a name or a change of a
    // flag takes.
    std::mutex lock;
    std::unordered_map<std::string, uint32> codes;                          // also owns the texts of the names
    std::atomic<uint32> count{1};                                           // the next free code
    std::shared_ptr<const rule_list> rules = std::make_shared<rule_list>(); // for future codes; the last match decides
    uint64 last_number = 0;
};

shared_state& state() {
    static shared_state* const made = new shared_state;
    return *made;
}

// By code: the number of the rule that set its flag. The later rule wins, whichever thread sets the flag first.
uint64 decided_by[qorDebugMaxCodes];

void decide(uint32 code, bool enable, uint64 number) {
    const std::lock_guard hold(state().lock);
    if (decided_by[code] > number)
        return;
    decided_by[code] = number;
    flags[code].store(enable ? 1 : 0, std::memory_order_relaxed);
}

bool is_known(const char* name) {
    const std::lock_guard hold(state().lock);
    return state().codes.contains(name);
}

void write_line(uint32 code, std::string_view text) noexcept {
    const char* const name = code < qorDebugMaxCodes ? names[code].load(std::memory_order_acquire) : nullptr;
    qor::debug::write_line(name != nullptr ? name : "", text);
}

void before_fork() noexcept {
    state().switching.lock();
    state().lock.lock();
}
void after_fork() noexcept {
    state().lock.unlock();
    state().switching.unlock();
}

} // namespace

const qorDebugFlag* qor::glue::qorDebugGetFlags() noexcept { return flags; }

uint32 qor::glue::qorDebugAllocateCode(const char* name) noexcept {
    static const bool watching_forks = (qor::platform::watch_forks(before_fork, after_fork, after_fork), true);
    (void)watching_forks;
    shared_state& shared = state();
    std::shared_ptr<const rule_list> rules;
    uint32 code;
    {
        const std::lock_guard hold(shared.lock);
        if (const auto known = shared.codes.find(name); known != shared.codes.end())
            return known->second;
        code = shared.count.load(std::memory_order_relaxed);
        if (code != qorDebugMaxCodes) {
            names[code].store(shared.codes.emplace(name, code).first->first.c_str(), std::memory_order_release);
            shared.count.store(code + 1, std::memory_order_release);
        }
        rules = shared.rules;
    }
    if (code == qorDebugMaxCodes) {
        qor::error::set(qorError_no_trace_codes_left, {name, std::to_string(qorDebugMaxCodes - 1).c_str()});
        return 0;
    }
    // Rules added since the list was read are applied to this code by the threads that added them.
    const auto last =
        std::find_if(rules->rbegin(), rules->rend(), [name](const auto& each) { return each->pattern.matches(name); });
    if (last != rules->rend())
        decide(code, (*last)->enable, (*last)->number);
    return code;
}

bool qor::glue::qorDebugEnableCode(const char* pattern, bool enable) noexcept {
    if (pattern == nullptr || *pattern == '\0') {
        qor::error::set(qorError_invalid_argument, {"qorDebugEnableCode", "pattern"});
        return false;
    }
    shared_state& shared = state();
    const auto made = std::make_shared<rule>(rule{qor::debug::trace_pattern(pattern), enable, 0});
    uint32 count;
    {
        const std::lock_guard one_at_a_time(shared.switching);
        // Drop earlier rules that the new one covers. An "off" rule at the front of the list has no effect, so drop it
        // too.
        const auto next = std::make_shared<rule_list>();
        for (const auto& old : *shared.rules)
            if ((old->enable || !next->empty()) && !made->pattern.covers(old->pattern))
                next->push_back(old);
        if ((enable || !next->empty()) && (made->pattern.has_star() || !is_known(pattern))) {
            if (next->size() == most_rules) {
                qor::error::set(qorError_too_many_switches, {pattern, std::to_string(most_rules).c_str()});
                return false;
            }
            next->push_back(made);
        }
        const std::lock_guard hold(shared.lock);
        made->number = ++shared.last_number;
        shared.rules = next;
        count = shared.count.load(std::memory_order_relaxed);
    }
    for (uint32 code = 1; code < count; ++code)
        if (made->pattern.matches(names[code].load(std::memory_order_relaxed)))
            decide(code, enable, made->number);
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
    const uint32 count = state().count.load(std::memory_order_acquire);
    for (uint32 code = 1; code < count; ++code)
        out.Append(names[code].load(std::memory_order_relaxed));
}

void qor::glue::qorDebugGetEnabledCodes(qorStringArray& out) noexcept {
    out.Empty();
    const uint32 count = state().count.load(std::memory_order_acquire);
    for (uint32 code = 1; code < count; ++code)
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

void qor::glue::qorDebugFreeName(char* name) noexcept { qor_do_free(name, "qorcore/src/debug/trace", __LINE__); }
