// The event log. The texts of the events are in a message table of libqor (event_messages_windows.mc), to which a
// program's source is registered when it is installed. Without that, viewers show the same texts with a remark.
#include "error/error.h"
#include "log/line_text.h"
#include "log/system_log.h"
#include "platform/system_library_windows.h"
#include "platform/wide_windows.h"

#include <algorithm>
#include <windows.h>

namespace {

// The longest insert of an event, in units of UTF-16.
constexpr std::size_t longest_insert = 31'839;

// As in event_messages_windows.mc; the upper bits are the severity.
constexpr DWORD event_error = 0xc0000001;
constexpr DWORD event_warning = 0x80000002;
constexpr DWORD event_information = 0x40000003;

struct event_kind {
    WORD type;
    DWORD number;
};

event_kind kind_of(qorLogLevel level) noexcept {
    if (level <= qorLogLevel::error)
        return {EVENTLOG_ERROR_TYPE, event_error};
    if (level == qorLogLevel::warning)
        return {EVENTLOG_WARNING_TYPE, event_warning};
    return {EVENTLOG_INFORMATION_TYPE, event_information};
}

// Invalid bytes and control characters are shown as escapes, line breaks as they are.
std::wstring insert_of(std::string_view text) {
    std::string valid;
    while (!text.empty()) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        qor::log::append_line_text(valid, text.substr(0, end));
        if (end == text.size())
            break;
        valid.append("\r\n");
        text.remove_prefix(end + 1);
    }
    std::wstring wide;
    qor::platform::to_wide(valid, wide);
    if (wide.size() > longest_insert)
        wide.erase(longest_insert);
    return wide;
}

class event_log final : public qor::log::system_service {
public:
    outcome send(const qor::log::system_entry& entry) noexcept override {
        const qor::error::keep_failures keep;
        if (!open(entry.program))
            return outcome::absent;
        std::string fields;
        qor::log::append_fields(fields, {{"LEVEL", std::string(qor::log::level_name(entry.level))},
                                         {"PROCESS", std::to_string(entry.process)},
                                         {"THREAD", std::to_string(entry.thread)},
                                         {"TIME", qor::debug::time_text(entry.time)}});
        if (!entry.file.empty())
            qor::log::append_fields(
                fields,
                {{"CODE_FILE", entry.file}, {"CODE_LINE", std::to_string(entry.line)}, {"CODE_FUNC", entry.function}});
        qor::log::append_fields(fields, entry.fields);
        const std::wstring text = insert_of(entry.text);
        const std::wstring rest = insert_of(std::string_view(fields).substr(1));
        const wchar_t* inserts[] = {text.c_str(), rest.c_str()};
        const event_kind kind = kind_of(entry.level);
        if (m_report(m_source, kind.type, 0, kind.number, nullptr, 2, 0, inserts, nullptr))
            return outcome::taken;
        m_reason = GetLastError();
        // The service was stopped or restarted, or the log is full.
        m_deregister(m_source);
        m_source = nullptr;
        return m_reason == ERROR_LOG_FILE_FULL || m_reason == ERROR_INVALID_HANDLE ? outcome::busy : outcome::absent;
    }

    bool may_wait() const noexcept override { return true; }
    std::string reason() override { return qor::error::system_reason(static_cast<int>(m_reason)); }
    void continue_in_child() noexcept override {}

private:
    bool open(const std::string& program) {
        if (m_source != nullptr)
            return true;
        constexpr wchar_t library[] = L"advapi32.dll";
        const auto register_source =
            qor::platform::find_function<decltype(RegisterEventSourceW)>(library, "RegisterEventSourceW");
        m_report = qor::platform::find_function<decltype(ReportEventW)>(library, "ReportEventW");
        m_deregister = qor::platform::find_function<decltype(DeregisterEventSource)>(library, "DeregisterEventSource");
        if (register_source != nullptr && m_report != nullptr && m_deregister != nullptr)
            m_source = register_source(nullptr, insert_of(program).c_str());
        if (m_source == nullptr)
            m_reason = GetLastError();
        return m_source != nullptr;
    }

    HANDLE m_source = nullptr;
    decltype(&ReportEventW) m_report = nullptr;
    decltype(&DeregisterEventSource) m_deregister = nullptr;
    DWORD m_reason = 0;
};

} // namespace

qor::log::system_service& qor::log::own_system_log() {
    static auto* const made = new event_log;
    return *made;
}
