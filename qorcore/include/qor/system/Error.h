// Errors are values. An operation that fails says so in its result and sets the last error of its thread; success
// leaves the last error unchanged. An error has a number, a class and a text in the user's language.
#pragma once

#include "qor/system/Interface.h"
#include "qor/system/Memory.h"
#include "qor/system/String.h"
#include "qor/system/template/SmartPointer.h"

#pragma push_macro("GetMessage")
#undef GetMessage // windows.h defines it as a macro for GetMessageA or GetMessageW; see LoadString (String.h)

// The kinds of errors.
enum class qorErrorClass : uint32 {
    none,     // no error
    internal, // the framework's own fault
    usage,    // a call or a command line that makes no sense
    resource, // memory or another limit
    access,   // something that is not permitted
    file,     // a file could not be opened, read or written
    system,   // another service of the operating system
};

// The numbers of all errors, as qorError_<name>.
enum qorErrorNumber : uint32 {
// One for each line of the list.
#define QOR_ERROR(number, name, error_class, text) qorError_##name = number,
#include "qor/system/errors.def"
#undef QOR_ERROR
};

// One error. The object is immutable; any thread may use it.
class IQORErrorMessage : public IQORInterface {
public:
    // One of qorErrorNumber.
    virtual uint32 GetErrorNumber() noexcept = 0;
    virtual bool IsError() noexcept = 0; // false only for number 0, "no error"
    // The kind of the error, for callers that react to it.
    virtual qorErrorClass GetErrorClass() noexcept = 0;
    // Replaces the content of `out` by the text in the user's language.
    virtual void GetMessage(qorString& out) noexcept = 0;
#if defined(_WIN32)
    // For callers that have included windows.h. A class that implements the interface must do so before it includes
    // windows.h, or undefine GetMessage.
    void GetMessageA(qorString& out) noexcept { GetMessage(out); }
    void GetMessageW(qorString& out) noexcept { GetMessage(out); }
#endif
    // Writes the text, followed by a newline if `newline` is true. Returns false if it could not be written.
    bool Put(std::FILE* stream, bool newline) noexcept {
        qorString text;
        GetMessage(text);
        return text.Put(stream, newline);
    }
    // The same for a stream of the library's C run-time. For programs compiled before Put was no operation of the
    // object.
    virtual bool PutToOwnStream(std::FILE* stream, bool newline) noexcept = 0;

    // Presents the error to the user: a line on standard error that names the process.
    virtual void Report() noexcept = 0;

protected:
    ~IQORErrorMessage() = default;
};

// Builds an error step by step. Not thread-safe.
class IQORErrorBuilder : public IQORInterface {
public:
    // Sets the number. An unknown number becomes qorError_unknown.
    virtual void SetNumber(uint32 number) noexcept = 0;
    virtual void AddInsert(const char* text) noexcept = 0; // the next of ten; further ones are dropped
    // Creates the error object, with a reference for the caller. Ends the process with a report if memory runs out.
    virtual void Build(IQORErrorMessage** out) noexcept = 0;
    virtual void SetLastError() noexcept = 0; // makes it this thread's last error

protected:
    ~IQORErrorBuilder() = default;
};

// Returns this thread's last error as an object, with a reference for the caller. Never null: number 0 means no error.
// Throws std::bad_alloc, like the two factories below.
inline void qorGetLastError(IQORErrorMessage** out) {
    qor::glue::qorGetLastError_message(out);
    qor::glue::or_throw(*out);
}

// Gets the text of this thread's last error and returns its number.
inline uint32 qorGetLastError(qorString& out) noexcept { return qor::glue::qorGetLastError_text(out); }

// Gets an insert of this thread's last error, from 1 to 10, for a text of the caller's own: errors of files have the
// path as insert 1 and the system's reason as insert 2 (qor/system/errors.def). Returns false and empties `out` if
// there is no such insert.
inline bool qorGetLastErrorInsert(uint32 index, qorString& out) noexcept {
    return qor::glue::qorGetLastErrorInsert(index, out);
}

// Sets this thread's last error. An unknown number becomes qorError_unknown. The inserts are copied.
inline void qorSetLastError(uint32 number, const char* a1 = nullptr, const char* a2 = nullptr, const char* a3 = nullptr,
                            const char* a4 = nullptr, const char* a5 = nullptr, const char* a6 = nullptr,
                            const char* a7 = nullptr, const char* a8 = nullptr, const char* a9 = nullptr,
                            const char* a10 = nullptr) noexcept {
    const char* const inserts[] = {a1, a2, a3, a4, a5, a6, a7, a8, a9, a10};
    qor::glue::qorSetLastError(number, inserts);
}

// Clears this thread's last error.
inline void qorClearLastError() noexcept { qor::glue::qorClearLastError(); }

// Converts a Windows error code (GetLastError) into the framework's number, or into qorError_unknown if nothing
// matches. Works on every platform, because such codes appear in files and network messages.
inline uint32 qorTranslateMSWindowsError(uint32 code) noexcept { return qor::glue::qorTranslateMSWindowsError(code); }

// Create an error object or a builder, with a reference for the caller. `inserts` is an array of ten texts, or null.
// Throw std::bad_alloc.
inline void create_IQORErrorMessage(uint32 number, const char* const* inserts, IQORErrorMessage** out) {
    qor::glue::create_IQORErrorMessage(number, inserts, out);
    qor::glue::or_throw(*out);
}
inline void create_IQORErrorBuilder(IQORErrorBuilder** out) {
    qor::glue::create_IQORErrorBuilder(out);
    qor::glue::or_throw(*out);
}

// Prints this thread's last error, or a line that says that there was no error.
inline void fputerr(std::FILE* stream, bool newline) noexcept {
    qor::glue::stream_sink sink(stream);
    qor::glue::fputerr_sink(&sink, newline);
}

// Preserves this thread's last error while other code runs, such as the clean-up after a failure. The constructor saves
// the error and the destructor restores it. The constructor throws std::bad_alloc.
class qorSaveErrorInfo {
public:
    qorSaveErrorInfo() { qorGetLastError(m_error.Out()); }
    qorSaveErrorInfo(const qorSaveErrorInfo&) = delete;
    qorSaveErrorInfo& operator=(const qorSaveErrorInfo&) = delete;
    ~qorSaveErrorInfo() { qor::glue::qorSetLastErrorMessage(*m_error); }

    // Like those of the saved error.
    bool IsError() const noexcept { return m_error->IsError(); }
    qorErrorClass GetErrorClass() const noexcept { return m_error->GetErrorClass(); }
    void GetMessage(qorString& out) const noexcept { m_error->GetMessage(out); }
#if defined(_WIN32)
    void GetMessageA(qorString& out) const noexcept { GetMessage(out); }
    void GetMessageW(qorString& out) const noexcept { GetMessage(out); }
#endif
    // Writes the text of the saved error, like IQORErrorMessage::Put.
    bool Put(std::FILE* stream, bool newline) const noexcept { return m_error->Put(stream, newline); }

    // Valid as long as this object; longer use needs a reference of its own.
    IQORErrorMessage* MessagePtr() const noexcept { return *m_error; }

private:
    zetSmartPointer<IQORErrorMessage> m_error;
};

#pragma pop_macro("GetMessage")
