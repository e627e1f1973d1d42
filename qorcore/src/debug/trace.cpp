// Trace codes and trace lines.
#include "debug/trace.h"

#include "error/error.h"
#include "file/raw_file.h"
#include "process/process.h"

#include <chrono>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

namespace {

// The switches that everyone reads. Code 0 is what a process gets that has used up all others: never on.
qorDebugFlag flags[qorDebugMaxCodes];

struct rule {
    std::string pattern;
    bool enable;
};

// Never destroyed: objects that trace may live until the very end of the process.
struct shared_state {
    std::mutex lock;
    std::vector<std::string> names{""}; // by code
    std::vector<rule> rules;            // for codes to come; the last match counts
    qor::file::raw_file file;
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

// "2026-11-21T02:52:56.123456Z 4711:4712 qortool.mtrace "
std::string line_head(uint32 code) {
    using namespace std::chrono;
    const auto now = time_point_cast<microseconds>(system_clock::now());
    const auto day = floor<days>(now);
    const year_month_day date{day};
    const hh_mm_ss time{now - day};
    char text[96];
    const int length = std::snprintf(
        text, sizeof text, "%04d-%02u-%02uT%02d:%02d:%02d.%06dZ %lu:%lu ", static_cast<int>(date.year()),
        static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
        static_cast<int>(time.hours().count()), static_cast<int>(time.minutes().count()),
        static_cast<int>(time.seconds().count()), static_cast<int>(time.subseconds().count()),
        qor::process::process_id(), qor::process::thread_id());
    std::string head(text, static_cast<std::size_t>(length));
    if (code < state().names.size())
        head += state().names[code];
    return head + ' ';
}

void write_line(uint32 code, const char* text) {
    // A trace changes nothing for the code that it watches.
    const qor::error::keep_failures keep;
    const std::lock_guard hold(state().lock);
    std::string line = line_head(code) + text;
    if (line.back() != '\n')
        line += '\n';
    if (state().file.is_open()) {
        // A trace that cannot be written must not disturb the process that it watches.
        (void)state().file.write(line.data(), line.size());
        return;
    }
    std::fwrite(line.data(), 1, line.size(), stderr);
    std::fflush(stderr);
}

} // namespace

int qor::debug::attach_file(const char* path) noexcept {
    const std::lock_guard hold(state().lock);
    return state().file.open(path, file::raw_file::access::append);
}

void qor::debug::detach_file() noexcept {
    const std::lock_guard hold(state().lock);
    state().file.close();
}

const qorDebugFlag* qor::glue::qorDebugGetFlags() noexcept { return flags; }

uint32 qor::glue::qorDebugAllocateCode(const char* name) noexcept {
    const std::lock_guard hold(state().lock);
    std::vector<std::string>& names = state().names;
    for (uint32 code = 1; code < names.size(); ++code)
        if (names[code] == name)
            return code;
    if (names.size() == qorDebugMaxCodes) {
        qor::error::set(qorError_no_trace_codes_left, {name, std::to_string(qorDebugMaxCodes - 1).c_str()});
        return 0;
    }
    const uint32 code = static_cast<uint32>(names.size());
    names.emplace_back(name);
    for (const rule& each : state().rules)
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
    // A rule said again replaces its elder, so that switching on and off for years does not grow the list.
    std::erase_if(rules, [pattern](const rule& old) { return old.pattern == pattern; });
    rules.push_back({pattern, enable});
    for (uint32 code = 1; code < state().names.size(); ++code)
        if (matches(pattern, state().names[code].c_str()))
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
    for (uint32 code = 1; code < state().names.size(); ++code)
        out.Append(state().names[code].c_str());
}

void qor::glue::qorDebugGetEnabledCodes(qorStringArray& out) noexcept {
    out.Empty();
    const std::lock_guard hold(state().lock);
    for (uint32 code = 1; code < state().names.size(); ++code)
        if (flags[code].load(std::memory_order_relaxed) != 0)
            out.Append(state().names[code].c_str());
}

void qor::glue::qorSendDebugLiteral(uint32 code, const char* text) noexcept { write_line(code, text); }

void qor::glue::qorDebugPrintV(uint32 code, const char* format, std::va_list arguments) noexcept {
    const qor::error::keep_failures keep;
    qorString text;
    text.PrintV(format, arguments);
    write_line(code, text.Text());
}

char* qor::glue::qorDebugMakeName(const char* format, std::va_list arguments) noexcept {
    qorString text;
    text.PrintV(format, arguments);
    return qor_do_strdup(text.Text(), "qorcore/src/debug/trace", __LINE__);
}

void qor::glue::qorDebugFreeName(char* name) noexcept { qor_do_free(name, "qorcore/src/debug/trace", __LINE__); }
