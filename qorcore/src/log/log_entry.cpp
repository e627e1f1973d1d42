// Log entries that are built step by step.
#include "catalog/catalog.h"
#include "error/error.h"
#include "log/log.h"
#include "memory/allocator.h"
#include "message_names.h"
#include "qor/qor.h"

#include <algorithm>
#include <initializer_list>

namespace framework = qor::messages::framework;

namespace {

constexpr char source[] = "qorcore/src/log/log_entry";

bool is_name(std::string_view name) noexcept {
    const auto is_letter = [](char c) { return c >= 'A' && c <= 'Z'; };
    return !name.empty() && name.size() <= qorMaxLogFieldName && is_letter(name.front()) &&
           std::all_of(name.begin(), name.end(),
                       [&](char c) { return is_letter(c) || (c >= '0' && c <= '9') || c == '_'; });
}

bool is_own_name(std::string_view name) noexcept {
    for (const std::string_view own : {"MESSAGE", "PRIORITY", "TID"})
        if (name == own)
            return true;
    for (const std::string_view begin : {"CODE_", "QOR_", "SYSLOG_"})
        if (name.starts_with(begin))
            return true;
    return false;
}

void refuse_name(std::string_view name, uint32 why) {
    const std::string most = std::to_string(qorMaxLogFieldName);
    const char* const inserts[10] = {most.c_str()};
    qor::error::set(qorError_log_field_name,
                    {std::string(name).c_str(),
                     qor::catalog::expand(qor::catalog::find(framework::catalog, why), inserts).c_str()});
}

std::size_t size_of(const std::vector<qor::log::field>& fields) noexcept {
    std::size_t size = 0;
    for (const qor::log::field& each : fields)
        size += each.name.size() + each.value.size();
    return size;
}

class log_entry final : public qor::object<IQORLogEntry> {
public:
    log_entry() noexcept : object("qorcore.log_entry", "IQORLogEntry") {}

    bool SetLevel(qorLogLevel level) noexcept override {
        if (!qor::log::check_level(level, "SetLevel"))
            return false;
        m_level = level;
        return true;
    }
    qorLogLevel GetLevel() noexcept override { return m_level; }

    bool SetText(qorTextView text) noexcept override {
        if (!qor::log::check_size(text.length + size_of(m_fields), m_fields.size()))
            return false;
        m_text = std::string_view(text);
        m_of_message.clear();
        return true;
    }

    bool SetMessage(const char* catalog, uint32 number, const char* const* inserts) noexcept override {
        std::string text = qor::log::message_text(catalog, number, inserts);
        std::vector<qor::log::field> fields = qor::log::message_fields(catalog, number, inserts);
        if (!qor::log::check_size(text.size() + size_of(fields) + size_of(m_fields), fields.size() + m_fields.size()))
            return false;
        m_text = std::move(text);
        m_of_message = std::move(fields);
        return true;
    }

    void GetText(qorString& out) noexcept override {
        qor::glue::qorString_Set(&out, m_text.data(), static_cast<uint32>(m_text.size()));
    }

    bool SetField(qorTextView name, qorTextView value) noexcept override {
        const std::string_view wanted = name;
        if (!is_name(wanted)) {
            refuse_name(wanted, framework::log_bad_name);
            return false;
        }
        if (is_own_name(wanted)) {
            refuse_name(wanted, framework::log_own_name);
            return false;
        }
        const auto found = std::find_if(m_fields.begin(), m_fields.end(),
                                        [&](const qor::log::field& each) { return each.name == wanted; });
        const bool is_new = found == m_fields.end();
        const std::size_t size = m_text.size() + size_of(m_of_message) + size_of(m_fields) + value.length +
                                 (is_new ? wanted.size() : 0) - (is_new ? 0 : found->value.size());
        if (!qor::log::check_size(size, m_fields.size() + m_of_message.size() + (is_new ? 1 : 0)))
            return false;
        if (is_new)
            m_fields.push_back({std::string(wanted), std::string(std::string_view(value))});
        else
            found->value = std::string_view(value);
        return true;
    }

    void RemoveFields() noexcept override { m_fields.clear(); }

    void SetPlace(const qorLogPlace& place) noexcept override {
        m_file = place.file != nullptr ? place.file : "";
        m_line = place.line;
        m_function = place.function != nullptr ? place.function : "";
    }

    void Send() noexcept override {
        if (!qor::log::is_wanted(m_level))
            return;
        const qorLogPlace place(m_file.c_str(), m_line, m_function.c_str());
        if (m_of_message.empty()) {
            qor::log::send({m_level, m_text, m_fields, place});
            return;
        }
        std::vector<qor::log::field> all = m_of_message;
        all.insert(all.end(), m_fields.begin(), m_fields.end());
        qor::log::send({m_level, m_text, all, place});
    }

private:
    qorLogLevel m_level = qorLogLevel::info;
    std::string m_text;
    std::vector<qor::log::field> m_of_message;
    std::vector<qor::log::field> m_fields;
    std::string m_file;
    uint32 m_line = 0;
    std::string m_function;
};

} // namespace

void qor::glue::create_IQORLogEntry(IQORLogEntry** out) noexcept {
    *out = nullptr;
    memory::make<log_entry>(source, __LINE__, out);
}
