// Start and end of the framework in a process, its options, messages to the user, and process signals.
#pragma once

#include "qor/system/Interface.h"
#include "qor/system/StringArray.h"

#include <cstdarg>
#include <cstdio>

// Starts the framework. `args` holds the complete argument vector. The program's name and the framework's own options
// (--qor-..., anywhere before a "--") are removed from it. `name` names the process in reports. No flags exist yet:
// pass 0. Returns false on failure; the process should then report the last error and end. Call it once, before other
// threads use the framework.
inline bool qorInitProcess(const char* name, qorStringArray& args, unsigned flags) noexcept {
    qor::glue::set_up_standard_error();
    return qor::glue::qorInitProcess(name, args, flags);
}

// Ends what qorInitProcess began: runs the clean-up routines, destroys the values of the whole process (GlobalSlot.h),
// releases the signals and flushes the log and the trace. Memory and strings can still be used and freed afterwards.
// Call it once, at the end.
inline void qorCleanup() noexcept { qor::glue::qorCleanup(); }

// Makes qorCleanup call `routine(context)`; the routine registered last runs first.
inline bool qorRegisterCleanupRoutine(qorCleanupRoutine routine, void* context) noexcept {
    return qor::glue::qorRegisterCleanupRoutine(routine, context);
}

// Removes the next option from the front of `args`: a word "--name" or "-name", with "=value" if it has a value.
// Returns false if the first word is "--", which is removed, or not an option (a lone "-" is not one), or if no word is
// left.
inline bool qorNextOption(qorStringArray& args, qorString& name, qorString& value) noexcept {
    return qor::glue::qorNextOption(args, name, value);
}

// Compares dotted version numbers: "3.9" is below "3.10". Returns a negative number, zero or a positive number.
inline int qorCompareVersions(const char* left, const char* right) noexcept {
    return qor::glue::qorCompareVersions(left, right);
}

// The version of the library that this program runs with: dotted numbers, as in QOR_VERSION, which is that of the
// headers it was compiled with.
inline const char* qorGetLibraryVersion() noexcept { return qor::glue::qorGetLibraryVersion(); }

// Sends process signals to `handler` instead of letting them end the process; null restores the earlier handling. The
// framework holds a reference to the current handler. Signals that arrived earlier still go to the old handler. When
// this call returns, all of them have been delivered, and no call of the old handler is running. So the caller must not
// hold a lock that the old handler takes. If the old handler itself makes this call, it gets the remaining signals
// after its own call has returned, and stays referenced until then. Returns false on failure (last error).
inline bool qorSetSignalHandler(IQORSignalHandler* handler) noexcept { return qor::glue::qorSetSignalHandler(handler); }

// ---- text on C streams
//
// fputtext, fixed_fprintf, fputmsg, fputerr, qorString::Put and the help lines share these rules:
// - Each call writes its text in one piece.
// - Before they write to standard error they flush standard output, so that both stay in order if they go to the same
//   place.
// - A terminal gets `\x1b` and the like instead of each byte that could control it: control characters except newline
//   and tab, including those at U+0080 and above, characters that change the direction of text, and invalid UTF-8. Any
//   other file gets the bytes unchanged.

// Writes `length` bytes. Returns false if not all of them could be written.
inline bool fputtext(std::FILE* stream, const char* text, uint64 length) noexcept {
    qor::glue::stream_sink sink(stream);
    return qor::glue::fputtext_sink(&sink, text, length);
}

// Like vfprintf, but independent of the locale: the decimal point is always a point. Returns a negative number if the
// text could not be written.
inline int fixed_vfprintf(std::FILE* stream, const char* format, std::va_list arguments) noexcept {
    qor::glue::stream_sink sink(stream);
    return qor::glue::fixed_vfprintf_sink(&sink, format, arguments);
}
// The same with its arguments.
QOR_PRINTF(2, 3) inline int fixed_fprintf(std::FILE* stream, const char* format, ...) noexcept {
    std::va_list arguments;
    va_start(arguments, format);
    const int written = fixed_vfprintf(stream, format, arguments);
    va_end(arguments);
    return written;
}

// Prints a message of a catalog as a line, with its inserts. Returns false if there is no such message or the stream
// cannot be written. For a missing message it prints the catalog, the number and the inserts, so that nothing is lost.
inline bool fputmsg(std::FILE* stream, const char* catalog, uint32 number, const char* a1, const char* a2 = nullptr,
                    const char* a3 = nullptr, const char* a4 = nullptr, const char* a5 = nullptr,
                    const char* a6 = nullptr, const char* a7 = nullptr, const char* a8 = nullptr,
                    const char* a9 = nullptr, const char* a10 = nullptr) noexcept {
    const char* const inserts[] = {a1, a2, a3, a4, a5, a6, a7, a8, a9, a10};
    qor::glue::stream_sink sink(stream);
    return qor::glue::fputmsg_sink(&sink, catalog, number, inserts, true);
}

// The same for a message without inserts; `newline` says whether a newline follows.
inline bool fputmsg(std::FILE* stream, const char* catalog, uint32 number, bool newline) noexcept {
    qor::glue::stream_sink sink(stream);
    return qor::glue::fputmsg_sink(&sink, catalog, number, nullptr, newline);
}

// Prints one entry of a help text: the syntax, and the description in a second column.
inline void qorWriteHelpLine(std::FILE* stream, const char* catalog, uint32 syntax, uint32 description) noexcept {
    qor::glue::stream_sink sink(stream);
    qor::glue::qorWriteHelpLine_sink(&sink, catalog, syntax, description);
}

// Prints the options that qorInitProcess takes, as help lines under a heading.
inline void qorWriteToolkitHelp(std::FILE* stream) noexcept {
    qor::glue::stream_sink sink(stream);
    qor::glue::qorWriteToolkitHelp_sink(&sink);
}

// Gets the languages in which messages are looked up, the best first; English ("en") is always the last.
inline void qorGetActiveCatalogLanguages(qorStringArray& out) noexcept { qor::glue::qorGetActiveCatalogLanguages(out); }
