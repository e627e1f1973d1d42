// The texts of errors, and the error objects that return them.
#include "catalog/catalog.h"
#include "error/error_state.h"
#include "memory/allocator.h"
#include "message_names.h"
#include "platform/own_process.h"
#include "qor/system/template/Object.h"

#include <algorithm>
#include <iterator>

namespace framework = qor::messages::framework;

namespace {

constexpr char source[] = "qorcore/src/catalog/error_texts";

std::string text_of(const qor::error::state& error) {
    const char* texts[qor::error::state::max_inserts];
    std::transform(std::begin(error.inserts), std::end(error.inserts), texts,
                   [](const std::string& insert) { return insert.c_str(); });
    return qor::catalog::expand(qor::catalog::find("qorcore", error.number), texts);
}

// Returns the number of the error.
uint32 put_text(const qor::error::state& error, qorString& out) {
    const std::string text = text_of(error);
    out.Set(text.data(), static_cast<int32>(text.size()));
    return error.number;
}

class error_message final : public qor::object<IQORErrorMessage> {
public:
    explicit error_message(const qor::error::state& error)
        : object("qorcore.error_message", "IQORErrorMessage"), m_error(error) {}

    uint32 GetErrorNumber() noexcept override { return m_error.number; }
    bool IsError() noexcept override { return m_error.number != qorError_none; }
    qorErrorClass GetErrorClass() noexcept override { return m_error.error_class(); }

    void GetMessage(qorString& out) noexcept override { put_text(m_error, out); }

    bool PutToOwnStream(std::FILE* stream, bool newline) noexcept override { return Put(stream, newline); }

    void Report() noexcept override {
        fputmsg(stderr, framework::catalog, framework::error_report, qor::platform::name(), text_of(m_error).c_str());
    }

    const qor::error::state& error() const noexcept { return m_error; }

private:
    const qor::error::state m_error;
};

void create(const qor::error::state& error, IQORErrorMessage** out) noexcept {
    *out = nullptr;
    qor::memory::make<error_message>(source, __LINE__, out, error);
}

class error_builder final : public qor::object<IQORErrorBuilder> {
public:
    error_builder() : object("qorcore.error_builder", "IQORErrorBuilder") {}

    void SetNumber(uint32 number) noexcept override {
        const qor::error::state known(number, nullptr);
        m_error.number = known.number;
    }

    void AddInsert(const char* text) noexcept override {
        if (m_count < qor::error::state::max_inserts)
            m_error.inserts[m_count++] = text != nullptr ? text : "";
    }

    void Build(IQORErrorMessage** out) noexcept override {
        create(m_error, out);
        if (*out == nullptr)
            qorEndOutOfMemory(); // the caller calls this through the interface, so no inline code can throw
    }
    void SetLastError() noexcept override { qor::error::make_current(m_error); }

private:
    qor::error::state m_error;
    uint32 m_count = 0;
};

} // namespace

uint32 qor::glue::qorGetLastError_text(qorString& out) noexcept { return put_text(error::current(), out); }

void qor::glue::fputerr_sink(IQORStreamSink* sink, bool newline) noexcept {
    qorString text;
    qorGetLastError_text(text);
    qorString_Put_sink(&text, sink, newline);
}

void qor::glue::fputerr(std::FILE* stream, bool newline) noexcept { ::fputerr(stream, newline); }

void qor::glue::qorGetLastError_message(IQORErrorMessage** out) noexcept { create(qor::error::current(), out); }

void qor::glue::qorSetLastErrorMessage(IQORErrorMessage* message) noexcept {
    // Every error message is created here, so the type behind the interface is known.
    qor::error::make_current(static_cast<error_message*>(message)->error());
}

void qor::glue::create_IQORErrorMessage(uint32 number, const char* const* inserts, IQORErrorMessage** out) noexcept {
    create(qor::error::state(number, inserts), out);
}

void qor::glue::create_IQORErrorBuilder(IQORErrorBuilder** out) noexcept {
    *out = nullptr;
    memory::make<error_builder>(source, __LINE__, out);
}
