// Errors are values: an operation that fails returns so and sets its thread's last error; success leaves the
// last error as it was. An error has a number, a class and a text in the user's language.
#pragma once

#include "qor/system/Interface.h"
#include "qor/system/Memory.h"
#include "qor/system/String.h"
#include "qor/system/template/SmartPointer.h"

#pragma push_macro("GetMessage")
#undef GetMessage // windows.h makes it a macro for GetMessageA or GetMessageW, as LoadString (String.h)

// What kind of error it is.
enum class qorErrorClass : uint32 {
    none,     // no error
    internal, // the framework's own fault
    usage,    // a call or a command line that makes no sense
    resource, // memory or another limit
    access,   // somebody may not do this
    file,     // a file could not be opened, read or written
    system,   // another service of the operating system
};

// The numbers, as qorError_<name>.
enum qorErrorNumber : uint32 {
// One for each line of the list.
#define QOR_ERROR(number, name, error_class, text) qorError_##name = number,
#include "qor/system/errors.def"
#undef QOR_ERROR
};

// One error. The object does not change; it may be used on any thread.
class IQORErrorMessage : public IQORInterface {
public:
    // One of qorErrorNumber.
    virtual uint32 GetErrorNumber() noexcept = 0;
    virtual bool IsError() noexcept = 0; // false only for number 0, "no error"
    // What kind of error it is, for callers that act by it.
    virtual qorErrorClass GetErrorClass() noexcept = 0;
    // The text in the user's language, in place of what `out` held.
    virtual void GetMessage(qorString& out) noexcept = 0;
#if defined(_WIN32)
    // For callers that have included windows.h. A class that implements the interface does so before it includes
    // windows.h, or undefines GetMessage.
    void GetMessageA(qorString& out) noexcept { GetMessage(out); }
    void GetMessageW(qorString& out) noexcept { GetMessage(out); }
#endif
    // Writes the text, and a newline behind it if asked. False: it could not be written.
    virtual bool Put(std::FILE* stream, bool newline) noexcept = 0;

    // Presents the error to the user: a line on standard error that names the process.
    virtual void Report() noexcept = 0;

protected:
    ~IQORErrorMessage() = default;
};

// Puts an error together step by step. Not thread-safe.
class IQORErrorBuilder : public IQORInterface {
public:
    // Which error it is. A number that no error has becomes qorError_unknown.
    virtual void SetNumber(uint32 number) noexcept = 0;
    virtual void AddInsert(const char* text) noexcept = 0; // the next of ten; further ones are dropped
    // The error as an object with a reference for the caller. Where memory runs out the process ends with a report.
    virtual void Build(IQORErrorMessage** out) noexcept = 0;
    virtual void SetLastError() noexcept = 0; // makes it this thread's last error

protected:
    ~IQORErrorBuilder() = default;
};

// This thread's last error as an object with a reference for the caller. Never null: without an error it is
// number 0. Throws std::bad_alloc, as the two factories below do.
inline void qorGetLastError(IQORErrorMessage** out) {
    qor::glue::qorGetLastError_message(out);
    qor::glue::or_throw(*out);
}

// Its text; returns its number.
inline uint32 qorGetLastError(qorString& out) noexcept { return qor::glue::qorGetLastError_text(out); }

// A number that no error has becomes qorError_unknown.
inline void qorSetLastError(uint32 number, const char* a1 = nullptr, const char* a2 = nullptr, const char* a3 = nullptr,
                            const char* a4 = nullptr, const char* a5 = nullptr, const char* a6 = nullptr,
                            const char* a7 = nullptr, const char* a8 = nullptr, const char* a9 = nullptr,
                            const char* a10 = nullptr) noexcept {
    const char* const inserts[] = {a1, a2, a3, a4, a5, a6, a7, a8, a9, a10};
    qor::glue::qorSetLastError(number, inserts);
}

// From now on this thread has no error.
inline void qorClearLastError() noexcept { qor::glue::qorClearLastError(); }

// The framework's number for an error code of Windows (GetLastError); qorError_unknown where there is no close
// one. The same on every platform: such codes travel in files and over networks.
inline uint32 qorTranslateMSWindowsError(uint32 code) noexcept { return qor::glue::qorTranslateMSWindowsError(code); }

// `inserts` are ten, or null.
inline void create_IQORErrorMessage(uint32 number, const char* const* inserts, IQORErrorMessage** out) {
    qor::glue::create_IQORErrorMessage(number, inserts, out);
    qor::glue::or_throw(*out);
}
inline void create_IQORErrorBuilder(IQORErrorBuilder** out) {
    qor::glue::create_IQORErrorBuilder(out);
    qor::glue::or_throw(*out);
}

// Prints this thread's last error, or, where there is none, a line that says so.
inline void fputerr(std::FILE* stream, bool newline) noexcept { qor::glue::fputerr(stream, newline); }

// Keeps this thread's last error over a piece of code that may set another, such as cleaning up after a failure:
// what it found when it was made is the last error again when it goes.
class qorSaveErrorInfo {
public:
    qorSaveErrorInfo() { qorGetLastError(m_error.Out()); }
    qorSaveErrorInfo(const qorSaveErrorInfo&) = delete;
    qorSaveErrorInfo& operator=(const qorSaveErrorInfo&) = delete;
    ~qorSaveErrorInfo() { qor::glue::qorSetLastErrorMessage(*m_error); }

    // As those of the error that was kept.
    bool IsError() const noexcept { return m_error->IsError(); }
    qorErrorClass GetErrorClass() const noexcept { return m_error->GetErrorClass(); }
    void GetMessage(qorString& out) const noexcept { m_error->GetMessage(out); }
#if defined(_WIN32)
    void GetMessageA(qorString& out) const noexcept { GetMessage(out); }
    void GetMessageW(qorString& out) const noexcept { GetMessage(out); }
#endif
    // Writes the text of the error that was kept, as IQORErrorMessage::Put.
    bool Put(std::FILE* stream, bool newline) const noexcept { return m_error->Put(stream, newline); }

    // Lives as long as this object; a longer use takes a reference of its own.
    IQORErrorMessage* MessagePtr() const noexcept { return *m_error; }

private:
    zetSmartPointer<IQORErrorMessage> m_error;
};

#pragma pop_macro("GetMessage")
