// The log: what the operators of a program read when it runs on their hosts. (The trace of Debug.h is for those who
// look for faults in it.) docs/logging.md has an example, the forms of the entries, and how they are collected.
//
// An entry has a level, a text or a numbered message with inserts, fields, and its place in the source. It goes to one
// target, which the option --qor-log, the variable QOR_LOG or qorSetLogTarget chooses:
//
//   system   the journal of systemd, or syslog on a host without one; the event log on Windows. The default.
//   stderr   lines on standard error
//   FILE     lines at the end of a file
//
// The system's log never makes the caller wait. If its daemon is slow or gone, up to qorMaxWaitingLogEntries wait for
// it in the process; further ones are dropped and counted, and an entry in the log says how many they were. A file has
// each entry as docs/tracing.md promises for lines of the trace.
//
// Any thread may log. A call whose entry is dropped has not failed. Logging leaves the last error unchanged, unless the
// call itself was wrong.
#pragma once

#include "qor/system/Interface.h"
#include "qor/system/TextView.h"
#include "qor/system/template/SmartPointer.h"

#include <source_location>

// How urgent an entry is, from the most urgent down; the numbers are those of syslog.
enum class qorLogLevel : uint32 {
    emergency, // the host cannot be used
    alert,     // somebody must act at once
    critical,  // the program cannot do its work
    error,     // something has failed
    warning,   // something will fail if nobody acts
    notice,    // normal, but worth knowing
    info,      // the course of the work
    debug,     // for those who look for a fault
};

// The largest entry: the bytes of its text, its inserts and its fields together, and the number of its fields.
inline constexpr uint32 qorMaxLogEntry = 1u << 20;
inline constexpr uint32 qorMaxLogFields = 256;
// The longest name of a field.
inline constexpr uint32 qorMaxLogFieldName = 64;
// How many entries wait for a daemon at most; together they have at most 4 MiB.
inline constexpr uint32 qorMaxWaitingLogEntries = 4096;

// Where in the source an entry comes from. Texts may be null.
struct qorLogPlace {
    const char* file = nullptr;     // its path
    uint32 line = 0;                // 0: unknown
    const char* function = nullptr; // its name

    qorLogPlace() noexcept = default;
    // A place that the compiler knows.
    qorLogPlace(const std::source_location& place) noexcept
        : file(place.file_name()), line(place.line()), function(place.function_name()) {}
    // Any other place.
    qorLogPlace(const char* file_name, uint32 line_number, const char* function_name) noexcept
        : file(file_name), line(line_number), function(function_name) {}
};

// Chooses the target: "system", "stderr" or the path of a file. Entries so far stay where they are. Returns false if
// the file cannot be opened; then nothing has changed.
[[nodiscard]] inline bool qorSetLogTarget(const char* target) noexcept { return qor::glue::qorSetLogTarget(target); }

// Leaves out entries that are less urgent than `least`, from now on. In the beginning this is qorLogLevel::info.
// Returns false if this is no level.
inline bool qorSetLogLevel(qorLogLevel least) noexcept { return qor::glue::qorSetLogLevel(least); }

// Waits until the target has all entries that were sent before this call, at most `wait` milliseconds; 0 only asks.
// Returns false if some are still waiting.
[[nodiscard]] inline bool qorFlushLog(uint32 wait) noexcept { return qor::glue::qorFlushLog(wait); }

// How many entries this process has dropped, because no target took them in time or at all.
inline uint64 qorGetDroppedLogCount() noexcept { return qor::glue::qorGetDroppedLogCount(); }

// Logs a text. Returns false if `level` is no level or the text is too large.
inline bool qorSendLogText(qorLogLevel level, qorTextView text,
                           const qorLogPlace& place = std::source_location::current()) noexcept {
    return qor::glue::qorSendLogText(level, text.text, text.length, place);
}

// Logs a message of a catalog in the user's language. The entry has its number and inserts, too (fields QOR_MESSAGE and
// QOR_INSERT_1 and so on), so that it can be found in every language. Without such a message the text is catalog,
// number and inserts. Returns false like qorSendLogText.
inline bool qorSendLogMessage(qorLogLevel level, const char* catalog, uint32 number, const char* a1 = nullptr,
                              const char* a2 = nullptr, const char* a3 = nullptr, const char* a4 = nullptr,
                              const char* a5 = nullptr, const char* a6 = nullptr, const char* a7 = nullptr,
                              const char* a8 = nullptr, const char* a9 = nullptr, const char* a10 = nullptr,
                              const qorLogPlace& place = std::source_location::current()) noexcept {
    const char* const inserts[] = {a1, a2, a3, a4, a5, a6, a7, a8, a9, a10};
    return qor::glue::qorSendLogMessage(level, catalog, number, inserts, place);
}

// An entry that is built step by step; it can be changed and sent again. One thread at a time may use it.
class IQORLogEntry : public IQORInterface {
public:
    // In the beginning qorLogLevel::info. SetLevel returns false if this is no level.
    virtual bool SetLevel(qorLogLevel level) noexcept = 0;
    virtual qorLogLevel GetLevel() noexcept = 0;

    // Each of the two replaces what the other has set. `inserts` is an array of ten texts, or null. Return false if the
    // entry becomes too large; it then stays as it was.
    virtual bool SetText(qorTextView text) noexcept = 0;
    virtual bool SetMessage(const char* catalog, uint32 number, const char* const* inserts) noexcept = 0;
    // Gets the text, for a message in the user's language.
    virtual void GetText(qorString& out) noexcept = 0;

    // Adds a field, or replaces the one of this name. A name has capital letters, digits and '_' and begins with a
    // letter, as in the journal. These names belong to the framework and are refused: MESSAGE, PRIORITY, TID, and those
    // that begin with CODE_, QOR_ or SYSLOG_. The value is any bytes. Returns false if the name is refused or the entry
    // becomes too large.
    virtual bool SetField(qorTextView name, qorTextView value) noexcept = 0;
    virtual void RemoveFields() noexcept = 0;

    // Where the entry comes from. The texts are copied.
    virtual void SetPlace(const qorLogPlace& place) noexcept = 0;

    // Logs the entry as it is now.
    virtual void Send() noexcept = 0;

protected:
    ~IQORLogEntry() = default;
};

// Creates an empty entry. Throws std::bad_alloc.
inline void create_IQORLogEntry(IQORLogEntry** out) {
    qor::glue::create_IQORLogEntry(out);
    qor::glue::or_throw(*out);
}

// An entry in one expression:
//
//   qorLogEntry(qorLogLevel::warning).Text("a disk is nearly full").Field("DISK", name).Send();
class qorLogEntry {
public:
    // An empty entry, whose place is that of this call. Throws std::bad_alloc.
    explicit qorLogEntry(qorLogLevel level, const qorLogPlace& place = std::source_location::current()) {
        create_IQORLogEntry(m_entry.Out());
        m_is_right = m_entry->SetLevel(level);
        m_entry->SetPlace(place);
    }

    // Like those of IQORLogEntry.
    qorLogEntry& Text(qorTextView text) noexcept { return note(m_entry->SetText(text)); }
    qorLogEntry& Message(const char* catalog, uint32 number, const char* a1 = nullptr, const char* a2 = nullptr,
                         const char* a3 = nullptr, const char* a4 = nullptr, const char* a5 = nullptr,
                         const char* a6 = nullptr, const char* a7 = nullptr, const char* a8 = nullptr,
                         const char* a9 = nullptr, const char* a10 = nullptr) noexcept {
        const char* const inserts[] = {a1, a2, a3, a4, a5, a6, a7, a8, a9, a10};
        return note(m_entry->SetMessage(catalog, number, inserts));
    }
    qorLogEntry& Field(qorTextView name, qorTextView value) noexcept { return note(m_entry->SetField(name, value)); }

    // Logs what was accepted. Returns false if something was refused (last error).
    bool Send() noexcept {
        m_entry->Send();
        return m_is_right;
    }

    // The entry itself.
    IQORLogEntry* operator->() const noexcept { return *m_entry; }

private:
    qorLogEntry& note(bool is_right) noexcept {
        m_is_right = m_is_right && is_right;
        return *this;
    }

    zetSmartPointer<IQORLogEntry> m_entry;
    bool m_is_right = true;
};
