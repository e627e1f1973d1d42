// Start and end of the framework in a process, its options, its messages to the user, process signals.
#pragma once

#include "qor/system/Interface.h"
#include "qor/system/StringArray.h"

#include <cstdarg>
#include <cstdio>

// Starts the framework. `args` holds the whole argument vector; the program's name and the framework's own options
// (--qor-..., anywhere before a word "--") are taken out of it. `name` names the process in reports. No flag is
// defined: pass 0. False: the last error says what was wrong; the process should report it and end. Call it
// once, before other threads use the framework.
inline bool qorInitProcess(const char* name, qorStringArray& args, unsigned flags) noexcept {
    return qor::glue::qorInitProcess(name, args, flags);
}

// Ends what qorInitProcess began: runs the clean-up routines, lets go of signals, flushes the trace. Memory and
// strings can be used and freed afterwards. Call it once, at the end.
inline void qorCleanup() noexcept { qor::glue::qorCleanup(); }

// `routine(context)` will be called by qorCleanup, the last registered first.
inline bool qorRegisterCleanupRoutine(qorCleanupRoutine routine, void* context) noexcept {
    return qor::glue::qorRegisterCleanupRoutine(routine, context);
}

// Takes the next option off the front of `args`: a word "--name" or "-name", with "=value" where it has a value.
// False at the first other word (a lone "-" is such a word) and at "--", which is dropped.
inline bool qorNextOption(qorStringArray& args, qorString& name, qorString& value) noexcept {
    return qor::glue::qorNextOption(args, name, value);
}

// Compares dotted version numbers: "3.9" is below "3.10". Negative, zero or positive.
inline int qorCompareVersions(const char* left, const char* right) noexcept {
    return qor::glue::qorCompareVersions(left, right);
}

// Sends process signals to `handler`, which is referenced meanwhile, instead of letting them end the process;
// null gives them back to whoever had them before. The old handler gets what had come until then. When this returns,
// all that has been delivered, and no call of the old handler is running any more; a handler that makes this call
// itself gets the rest after its own call has ended, and is referenced as long. So the caller must not hold a lock that
// the old handler takes. False: the last error says why.
inline bool qorSetSignalHandler(IQORSignalHandler* handler) noexcept { return qor::glue::qorSetSignalHandler(handler); }

// ---- text on C streams
//
// fputtext, fixed_fprintf, fputmsg, fputerr, qorString::Put and the help lines have this in common:
// - Each call writes its text in one piece.
// - Before a text for standard error they flush standard output, so that both stand in order where they end in one
// place.
// - A terminal gets `\x1b` and the like for each byte that would steer it: control characters but newline and tab,
// those
//   from U+0080 on included, characters that make text run the other way, and what is no UTF-8. Any other file gets the
//   bytes as they are.

// Writes `length` bytes. False: not all of them could be written.
inline bool fputtext(std::FILE* stream, const char* text, uint64 length) noexcept {
    return qor::glue::fputtext(stream, text, length);
}

// printf to a stream, with a result that no locale changes: the decimal point is a point.
QOR_PRINTF(2, 3) inline int fixed_fprintf(std::FILE* stream, const char* format, ...) noexcept {
    std::va_list arguments;
    va_start(arguments, format);
    const int written = qor::glue::fixed_vfprintf(stream, format, arguments);
    va_end(arguments);
    return written;
}

// Prints a message of a catalog as a line, with its inserts. False: there is no such message, or the stream
// cannot be written. A missing message prints its catalog, number and inserts, so that nothing is lost.
inline bool fputmsg(std::FILE* stream, const char* catalog, uint32 number, const char* a1, const char* a2 = nullptr,
                    const char* a3 = nullptr, const char* a4 = nullptr, const char* a5 = nullptr,
                    const char* a6 = nullptr, const char* a7 = nullptr, const char* a8 = nullptr,
                    const char* a9 = nullptr, const char* a10 = nullptr) noexcept {
    const char* const inserts[] = {a1, a2, a3, a4, a5, a6, a7, a8, a9, a10};
    return qor::glue::fputmsg(stream, catalog, number, inserts, true);
}

// The same for a message without inserts; the newline is the caller's choice.
inline bool fputmsg(std::FILE* stream, const char* catalog, uint32 number, bool newline) noexcept {
    return qor::glue::fputmsg(stream, catalog, number, nullptr, newline);
}

// One entry of a help text: the syntax, and the description in a column of its own.
inline void qorWriteHelpLine(std::FILE* stream, const char* catalog, uint32 syntax, uint32 description) noexcept {
    qor::glue::qorWriteHelpLine(stream, catalog, syntax, description);
}

// The options that qorInitProcess takes, as help lines under a heading.
inline void qorWriteToolkitHelp(std::FILE* stream) noexcept { qor::glue::qorWriteToolkitHelp(stream); }

// The languages in which messages are looked for, the best first; English ("en") is always the last.
inline void qorGetActiveCatalogLanguages(qorStringArray& out) noexcept { qor::glue::qorGetActiveCatalogLanguages(out); }
