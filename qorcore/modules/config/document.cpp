#include "document.h"

#include "common/guarded.h"
#include "edit.h"
#include "message_names.h"
#include "qor/qor.h"

#include <optional>

namespace framework = qor::messages::framework;

namespace {

using config::node;
using config::outline;
using config::part;

constexpr char source[] = "qorcore/modules/config/document";
constexpr char catalog[] = "qorcore";

bool read_path(const char* path, std::vector<part>& parts) {
    if (path != nullptr && qor::config::read_path(path, parts))
        return true;
    qorSetLastError(qorError_config_path, path != nullptr ? path : "");
    return false;
}

constexpr uint32 kind_names[] = {
    0,
    framework::kind_boolean,
    framework::kind_integer,
    framework::kind_number,
    framework::kind_text,
    framework::kind_time,
    framework::kind_array,
    framework::kind_table,
};

class document final : public qor::object<IQORConfigDocument> {
public:
    document() : object("qor-config.document", "IQORConfigDocument", "IQORConfigNode") { config::scan({}, *m_tree); }

    bool Parse(const char* name, const char* text, uint64 size) noexcept override {
        return qor::modules::guarded([&] {
            std::string content(text, static_cast<std::size_t>(size));
            auto tree = std::make_unique<outline>();
            std::string called = name;
            if (!config::parse(name, content, *tree))
                return false;
            m_tree = std::move(tree);
            m_text = std::move(content);
            m_name = std::move(called);
            return true;
        });
    }

    std::string_view GetText() noexcept override { return m_text; }

    bool GetValue(const char* path, const qorConfigWish& wish, qorConfigValue& out) noexcept override {
        out = {};
        return qor::or_end([&] {
            std::vector<part> parts;
            if (!read_path(path, parts))
                return false;
            const node* const found = config::find(m_tree->root, parts);
            return found == nullptr || take(*found, path, wish, out);
        });
    }

    bool GetNames(const char* path, qorStringArray& out) noexcept override {
        out.Empty();
        return with(path, [&](const node& found) {
            if (found.value.kind != qorConfigKind::table)
                return refuse(found, path, framework::kind_table);
            for (const node::entry& each : found.entries)
                out.Append(each.name);
            return true;
        });
    }

    bool GetOrigin(const char* path, qorConfigOrigin& out) noexcept override {
        return with(path, [&](const node& found) {
            out.file = m_name;
            out.line = static_cast<uint32>(m_tree->line_of(found.place.begin));
            out.column = static_cast<uint32>(m_tree->column_of(m_text, found.place.begin));
            return true;
        });
    }

    bool SetValue(const char* path, const qorConfigValue& value) noexcept override {
        return qor::modules::guarded([&] {
            const std::string literal = config::literal_of(value);
            if (!literal.empty())
                return SetLiteral(path, literal.c_str());
            qorSetLastError(qorError_invalid_argument, "SetValue", "value");
            return false;
        });
    }

    bool SetLiteral(const char* path, const char* literal) noexcept override {
        return qor::modules::guarded([&] {
            std::vector<part> parts;
            outline wanted;
            std::string value = literal != nullptr ? literal : "";
            value.erase(value.find_last_not_of(" \t\r\n") + 1);
            value.erase(0, value.find_first_not_of(" \t\r\n"));
            if (!read_path(path, parts) || !parse_literal(value, wanted))
                return false;
            std::string text = m_text;
            if (const config::refusal why = config::set(*m_tree, text, parts, value); why != 0) {
                qorString reason;
                reason.LoadString(catalog, why);
                qorSetLastError(qorError_config_no_place, path, m_name.c_str(), reason);
                return false;
            }
            return accept(path, parts, std::move(text), wanted.root.entries.front().value.get());
        });
    }

    bool Remove(const char* path) noexcept override {
        return with(path, [&](const node& found) {
            if (&found == &m_tree->root) {
                qorSetLastError(qorError_config_path, path);
                return false;
            }
            std::vector<part> parts;
            qor::config::read_path(path, parts);
            std::string text = m_text;
            config::remove(*m_tree, text, parts);
            return accept(path, parts, std::move(text), nullptr);
        });
    }

private:
    // Calls `work` for what a path leads to. That there is nothing is an error. If memory runs out, the process ends:
    // a failure of its own would look like an absent value.
    template <class WORK>
    bool with(const char* path, WORK work) noexcept {
        return qor::or_end([&] {
            std::vector<part> parts;
            if (!read_path(path, parts))
                return false;
            if (const node* const found = config::find(m_tree->root, parts); found != nullptr)
                return work(*found);
            qorSetLastError(qorError_config_no_value, m_name.c_str(), path);
            return false;
        });
    }

    std::string line_of(const node& found) const { return std::to_string(m_tree->line_of(found.place.begin)); }

    bool refuse(const node& found, const char* path, uint32 kind) const {
        qorString wanted;
        wanted.LoadString(catalog, kind);
        qorSetLastError(qorError_config_wrong_kind, m_name.c_str(), line_of(found).c_str(), path, wanted);
        return false;
    }

    bool take(const node& found, const char* path, const qorConfigWish& wish, qorConfigValue& out) const {
        qorConfigValue value = found.value;
        value.text = found.text.c_str();
        if (wish.kind == qorConfigKind::number && value.kind == qorConfigKind::integer) {
            value.kind = qorConfigKind::number;
            value.number = static_cast<double>(found.value.integer);
        }
        if (wish.kind != qorConfigKind::none && wish.kind != value.kind)
            return refuse(found, path, kind_names[static_cast<uint32>(wish.kind)]);
        if (value.kind == qorConfigKind::integer && (value.integer < wish.least || value.integer > wish.most)) {
            qorSetLastError(qorError_config_out_of_range, m_name.c_str(), line_of(found).c_str(), path,
                            std::to_string(wish.least).c_str(), std::to_string(wish.most).c_str());
            return false;
        }
        out = value;
        return true;
    }

    // A literal is a value and nothing else: no comment, no further line.
    static bool parse_literal(const std::string& literal, outline& out) {
        constexpr std::string_view name = "x=";
        const std::string text = std::string(name) + literal;
        if (config::parse("", text, out) && out.statements.size() == 2 && out.root.entries.size() == 1 &&
            out.root.entries.front().value->place.begin == name.size() &&
            out.root.entries.front().value->place.end == text.size())
            return true;
        qorSetLastError(qorError_config_literal, literal.c_str());
        return false;
    }

    // Takes over a changed text, if it means what is wanted.
    bool accept(const char* path, const std::vector<part>& parts, std::string text, const node* wanted) {
        auto tree = std::make_unique<outline>();
        if (!config::parse(m_name.c_str(), text, *tree))
            return fail_entangled(path);
        if (!config::is_only_changed(m_tree->root, tree->root, parts, wanted))
            return fail_entangled(path);
        m_tree = std::move(tree);
        m_text = std::move(text);
        return true;
    }

    bool fail_entangled(const char* path) const {
        qorSetLastError(qorError_config_entangled, path, m_name.c_str());
        return false;
    }

    // The tree points into itself, so it has a fixed place.
    std::unique_ptr<outline> m_tree = std::make_unique<outline>();
    std::string m_text;
    std::string m_name;
};

} // namespace

IQORConfigDocument* config::make_document() { return new (source, __LINE__) document; }
