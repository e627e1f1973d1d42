// Tracing through named channels ("qortool.mtrace"), which are switched on and off while the process runs, and
// assertions. A channel that is off costs one load and one test.
//
// Trace lines go to standard error, or to the file set by --qor-debug-file or qorDebugAttachFile. Any thread may trace;
// lines of different threads never mix.
#pragma once

#include "qor/glue/impl_common.h"

#include <cstdarg>
#include <type_traits>

namespace qor::glue {

#ifdef QOR_INSIDE

inline const qorDebugFlag* debug_flags() noexcept { return qorDebugGetFlags(); }

#else

// The array of switches; null until it is first needed.
QOR_HIDDEN inline constinit std::atomic<const qorDebugFlag*> s_debug_flags{nullptr};

// Returns null before the table is bound, because tracing never binds.
inline const qorDebugFlag* debug_flags() noexcept {
    const qorDebugFlag* flags = s_debug_flags.load(std::memory_order_acquire);
    if (flags == nullptr && is_bound()) [[unlikely]] {
        flags = qorDebugGetFlags();
        s_debug_flags.store(flags, std::memory_order_release);
    }
    return flags;
}

#endif

// Returns whether a code is on, with one load and one test.
inline bool debug_is_on(uint32 code) noexcept {
    const qorDebugFlag* const flags = debug_flags();
    return flags != nullptr && flags[code % qorDebugMaxCodes].load(std::memory_order_relaxed) != 0;
}

} // namespace qor::glue

// Returns the code of a dotted name; the same name always gets the same code. Returns 0, a code that is never on, if
// all codes are taken (last error). Any thread.
inline uint32 qorDebugAllocateCode(const char* name) noexcept { return qor::glue::qorDebugAllocateCode(name); }

// Switches on or off all codes whose names match `pattern`. In it, `*` stands for any bytes, including none, and every
// other byte for itself. Codes that are allocated later follow the last matching call. For them, the framework keeps up
// to 256 patterns and names without a code; a pattern that covers an earlier one replaces it, and "*" off drops them
// all. Returns false (last error) and switches nothing if the pattern is empty, or if it must be kept and there is no
// room. Any thread may call it; threads that allocate a code or trace do not wait for it.
inline bool qorDebugEnableCode(const char* pattern, bool enable) noexcept {
    return qor::glue::qorDebugEnableCode(pattern, enable);
}

// Replace the content of `out` by the names of all codes of this process, or of those that are on, in the order of
// their allocation.
inline void qorDebugGetCodes(qorStringArray& out) noexcept { qor::glue::qorDebugGetCodes(out); }
inline void qorDebugGetEnabledCodes(qorStringArray& out) noexcept { qor::glue::qorDebugGetEnabledCodes(out); }

// Appends the trace of this process to a file from now on; null switches back to standard error. Returns false if the
// file cannot be written (last error).
[[nodiscard]] inline bool qorDebugAttachFile(const char* path) noexcept { return qor::glue::qorDebugAttachFile(path); }

// Traces a text as one line, without formatting it.
inline void qorSendDebugLiteral(uint32 code, const char* text) noexcept {
    if (qor::glue::debug_is_on(code)) [[unlikely]]
        qor::glue::qorSendDebugLiteral(code, text);
}

// Traces one line. Formats it only if the code is on.
QOR_PRINTF(2, 3) inline void qorDebug(uint32 code, const char* format, ...) noexcept {
    if (qor::glue::debug_is_on(code)) [[unlikely]] {
        std::va_list arguments;
        va_start(arguments, format);
        qor::glue::qorDebugPrintV(code, format, arguments);
        va_end(arguments);
    }
}

// A trace scope: traces one line on entry and one on exit, each if the code is on at that moment.
class qorDebugSeq {
public:
    // The name is kept by pointer and must outlive the object.
    qorDebugSeq(uint32 code, const char* func) noexcept : m_code(code), m_name(func) { enter(); }

    // Builds the scope's name from a printf-style format. If the code is off on entry, no name is built, and nothing is
    // traced on exit.
    template <class... ARGUMENTS>
    requires(sizeof...(ARGUMENTS) > 0) qorDebugSeq(uint32 code, const char* format, ARGUMENTS... arguments)
    noexcept : m_code(code) {
        static_assert(
            ((std::is_arithmetic_v<ARGUMENTS> || std::is_enum_v<ARGUMENTS> || std::is_pointer_v<ARGUMENTS>)&&...),
            "printf takes numbers and pointers");
        if (!qor::glue::debug_is_on(code))
            return;
        make_name(format, arguments...);
        enter();
    }
    qorDebugSeq(const qorDebugSeq&) = delete;
    qorDebugSeq& operator=(const qorDebugSeq&) = delete;
    ~qorDebugSeq() {
        if (qor::glue::debug_is_on(m_code) && m_name != nullptr) [[unlikely]]
            qorDebug(m_code, "<<LEAVE<< %s()", m_name);
        if (m_owned) [[unlikely]]
            qor::glue::qorDebugFreeName(const_cast<char*>(m_name));
    }

private:
    void make_name(const char* format, ...) noexcept QOR_PRINTF(2, 3) {
        std::va_list arguments;
        va_start(arguments, format);
        m_name = qor::glue::qorDebugMakeName(format, arguments);
        va_end(arguments);
        m_owned = true;
    }

    void enter() const noexcept {
        if (qor::glue::debug_is_on(m_code)) [[unlikely]]
            qorDebug(m_code, ">>ENTER>> %s()", m_name);
    }

    uint32 m_code;
    bool m_owned = false;
    const char* m_name = nullptr;
};

// Reports a failed assertion on standard error and returns; execution continues. `file` is the source path without its
// extension.
inline void qorAssertFailed(const char* expr, const char* func, const char* file, int line) noexcept {
    qor::glue::qorAssertFailed(expr, func, file, line);
}
