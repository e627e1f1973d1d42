// Tracing: named channels ("qortool.mtrace") that are switched on and off while the process runs, and
// assertions. A channel that is off costs a load and a test.
//
// Lines go to standard error, or to the file of --qor-debug-file or qorDebugAttachFile. Any thread may trace; a
// line is never torn.
#pragma once

#include "qor/glue/impl_common.h"

#include <cstdarg>
#include <type_traits>

namespace qor::glue {

#ifdef QOR_INSIDE

inline const qorDebugFlag* debug_flags() noexcept { return qorDebugGetFlags(); }

#else

// The array of switches, once it was asked for.
#if defined(__ELF__)
[[gnu::visibility("hidden")]]
#endif
inline constinit std::atomic<const qorDebugFlag*>
    s_debug_flags{nullptr};

// Null before the table is bound: tracing never binds.
inline const qorDebugFlag* debug_flags() noexcept {
    const qorDebugFlag* flags = s_debug_flags.load(std::memory_order_acquire);
    if (flags == nullptr && is_bound()) [[unlikely]] {
        flags = qorDebugGetFlags();
        s_debug_flags.store(flags, std::memory_order_release);
    }
    return flags;
}

#endif

// Whether a code is on: a load and a test.
inline bool debug_is_on(uint32 code) noexcept {
    const qorDebugFlag* const flags = debug_flags();
    return flags != nullptr && flags[code % qorDebugMaxCodes].load(std::memory_order_relaxed) != 0;
}

} // namespace qor::glue

// The code of a dotted name, the same at each call. 0 when all codes are taken: it can never be switched on.
inline uint32 qorDebugAllocateCode(const char* name) noexcept { return qor::glue::qorDebugAllocateCode(name); }

// Switches the codes on or off whose names match `pattern`, in which `*` stands for any bytes, also for none, and every
// other byte for itself. Codes allocated later follow the last matching call: for them up to 256 patterns and names
// without a code are kept; one that says all that an earlier one did replaces it, and "*" off drops them all. False:
// the pattern is empty, or it would have to be kept and there is no room (last error); nothing is switched then. Any
// thread may call it; none that allocates a code or traces waits for it.
inline bool qorDebugEnableCode(const char* pattern, bool enable) noexcept {
    return qor::glue::qorDebugEnableCode(pattern, enable);
}

// The names of all codes of this process, and of those that are on, in the order of their allocation.
inline void qorDebugGetCodes(qorStringArray& out) noexcept { qor::glue::qorDebugGetCodes(out); }
inline void qorDebugGetEnabledCodes(qorStringArray& out) noexcept { qor::glue::qorDebugGetEnabledCodes(out); }

// Sends the trace of this process to the end of a file. False: it cannot be written (last error). Null: back to
// standard error.
[[nodiscard]] inline bool qorDebugAttachFile(const char* path) noexcept { return qor::glue::qorDebugAttachFile(path); }

// One line of trace, as it is.
inline void qorSendDebugLiteral(uint32 code, const char* text) noexcept {
    if (qor::glue::debug_is_on(code)) [[unlikely]]
        qor::glue::qorSendDebugLiteral(code, text);
}

// One line of trace, formatted only while the code is on.
QOR_PRINTF(2, 3) inline void qorDebug(uint32 code, const char* format, ...) noexcept {
    if (qor::glue::debug_is_on(code)) [[unlikely]] {
        std::va_list arguments;
        va_start(arguments, format);
        qor::glue::qorDebugPrintV(code, format, arguments);
        va_end(arguments);
    }
}

// A trace scope: a line when it is entered and one when it is left, each if the code is on at that moment.
class qorDebugSeq {
public:
    // The name is kept by pointer.
    qorDebugSeq(uint32 code, const char* func) noexcept : m_code(code), m_name(func) { enter(); }

    // The scope's name is built from a printf-style format. A scope entered while the code is off has no name, and
    // traces nothing when it is left.
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

// Reports a failed assertion on standard error and returns: execution goes on. `file` is the source path without
// its extension.
inline void qorAssertFailed(const char* expr, const char* func, const char* file, int line) noexcept {
    qor::glue::qorAssertFailed(expr, func, file, line);
}
