// JSON of variants, lists and sets. The library JSON for Modern C++ reads the text and writes names and scalar values;
// the structure is written and built here, without a second copy of it.
#include "container/json.h"

#include "container/variant.h"
#include "error/error.h"

#include <nlohmann/json.hpp>

#include <string>
#include <vector>

namespace {

using json = nlohmann::json;
using qor::error::set;

std::string base64(std::span<const std::byte> bytes) {
    static constexpr char digits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    out.reserve((bytes.size() + 2) / 3 * 4);
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        uint32 group = 0;
        for (std::size_t k = 0; k < 3; ++k)
            group = group << 8 | (i + k < bytes.size() ? std::to_integer<uint32>(bytes[i + k]) : 0);
        for (std::size_t k = 0; k < 4; ++k)
            out += i + k <= bytes.size() ? digits[group >> (18 - 6 * k) & 63] : '=';
    }
    return out;
}

class json_writer {
public:
    explicit json_writer(uint32 indent) noexcept : m_indent(indent) {}

    bool write(const qorVariant& value) noexcept {
        switch (value.Kind()) {
        case qorVariantKind::null:
            return add("null");
        case qorVariantKind::logical:
            return add(*value.AsBool() ? "true" : "false");
        case qorVariantKind::integer:
            return add(std::to_string(value.m_data.integer));
        case qorVariantKind::natural:
        case qorVariantKind::time:
            return add(std::to_string(value.m_data.natural));
        case qorVariantKind::real:
            if (!std::isfinite(value.m_data.real)) {
                set(qorError_json_impossible, {"a number that is infinite or none"});
                return false;
            }
            return add(json(value.m_data.real).dump());
        case qorVariantKind::text:
            return write(*value.AsText());
        case qorVariantKind::bytes:
            return add('"' + base64(*value.AsBytes()) + '"');
        case qorVariantKind::list:
            return write(value.AsList());
        case qorVariantKind::set:
            return write(value.AsSet());
        }
        return false;
    }

    bool write(IQORVariantList* list) noexcept {
        begin('[');
        for (const qorVariant& each : list->Values()) {
            next();
            if (!write(each))
                return false;
        }
        end(']');
        return true;
    }

    bool write(IQORAttributeSet* set) noexcept {
        begin('{');
        for (const qorAttribute& each : set->Attributes()) {
            next();
            if (!write(std::string_view(each.name)))
                return false;
            m_text += m_indent != 0 ? ": " : ":";
            if (!write(each.value))
                return false;
        }
        end('}');
        return true;
    }

    const std::string& text() const noexcept { return m_text; }

private:
    bool add(std::string_view text) noexcept {
        m_text += text;
        return true;
    }

    bool write(std::string_view text) noexcept {
        try {
            return add(json(text).dump(-1, ' ', false, json::error_handler_t::strict));
        } catch (const json::exception&) { // the only reason
            set(qorError_json_impossible, {"a text that is not UTF-8"});
            return false;
        }
    }

    void line() noexcept {
        if (m_indent != 0)
            m_text.append(1, '\n').append(std::size_t{m_indent} * m_level, ' ');
    }
    void begin(char bracket) noexcept {
        m_text += bracket;
        ++m_level;
        m_is_first = true;
    }
    void next() noexcept {
        if (!m_is_first)
            m_text += ',';
        m_is_first = false;
        line();
    }
    void end(char bracket) noexcept {
        --m_level;
        if (!m_is_first)
            line();
        m_is_first = false;
        m_text += bracket;
    }

    uint32 m_indent;
    uint32 m_level = 0;
    bool m_is_first = true;
    std::string m_text;
};

template <class VALUE>
bool write_text(const VALUE& value, uint32 indent, qorString& out) noexcept {
    json_writer writer(std::min(indent, 16u));
    const bool done = writer.write(value);
    out.Set(done ? std::string_view(writer.text()) : std::string_view());
    return done;
}

// Builds what the parser reads. The operations have the names that the parser calls; each returns whether to go on.
class json_builder {
public:
    using number_integer_t = json::number_integer_t;
    using number_unsigned_t = json::number_unsigned_t;
    using number_float_t = json::number_float_t;
    using string_t = json::string_t;
    using binary_t = json::binary_t;

    // The outermost value goes into one of these.
    explicit json_builder(qorVariant& value) noexcept : m_value(&value) {}
    explicit json_builder(IQORVariantList* list) noexcept : m_root{list, nullptr} {}
    explicit json_builder(IQORAttributeSet* set) noexcept : m_root{nullptr, set} {}

    bool null() noexcept { return add({}); }
    bool boolean(bool value) noexcept { return add(value); }
    bool number_integer(number_integer_t value) noexcept { return add(static_cast<int64>(value)); }
    bool number_unsigned(number_unsigned_t value) noexcept {
        return add(value >> 63 == 0 ? qorVariant(static_cast<int64>(value)) : qorVariant(static_cast<uint64>(value)));
    }
    bool number_float(number_float_t value, const string_t& digits) noexcept {
        if (digits.find_first_of(".eE") == digits.npos)
            return refuse("the integer " + digits.substr(0, 100) + " does not fit into 64 bits");
        return add(static_cast<double>(value));
    }
    bool string(string_t& text) noexcept { return add(text); }
    bool binary(binary_t&) noexcept { return false; } // JSON has none
    bool key(string_t& name) noexcept {
        if (m_open.back().set->Find(name) != nullptr)
            return refuse("the name '" + name.substr(0, 100) + "' stands twice in one object");
        m_name.swap(name);
        return true;
    }
    bool start_object(std::size_t) noexcept {
        IQORAttributeSet* set = nullptr;
        if (!m_open.empty()) {
            const place& into = m_open.back();
            set = into.list != nullptr ? into.list->AppendSet() : into.set->SetSet(m_name);
        } else if (m_value != nullptr) {
            *m_value = qorVariant::Set();
            set = m_value->AsSet();
        } else if (m_root.set != nullptr) {
            set = m_root.set;
        } else {
            return refuse("it is an object instead of an array");
        }
        m_open.push_back({nullptr, set});
        return set != nullptr;
    }
    bool start_array(std::size_t) noexcept {
        IQORVariantList* list = nullptr;
        if (!m_open.empty()) {
            const place& into = m_open.back();
            list = into.list != nullptr ? into.list->AppendList() : into.set->SetList(m_name);
        } else if (m_value != nullptr) {
            *m_value = qorVariant::List();
            list = m_value->AsList();
        } else if (m_root.list != nullptr) {
            list = m_root.list;
        } else {
            return refuse("it is an array instead of an object");
        }
        m_open.push_back({list, nullptr});
        return list != nullptr;
    }
    bool end_object() noexcept { return close(); }
    bool end_array() noexcept { return close(); }
    bool parse_error(std::size_t, const std::string&, const json::exception& fault) noexcept {
        // Without the name of the exception.
        std::string_view text = fault.what();
        if (const std::size_t end = text.find("] "); end != text.npos)
            text.remove_prefix(end + 2);
        return refuse(std::string(text));
    }

private:
    struct place {
        IQORVariantList* list = nullptr;
        IQORAttributeSet* set = nullptr;
    };

    bool refuse(const std::string& reason) noexcept {
        set(qorError_json_invalid, {reason.c_str()});
        return false;
    }
    bool add(const qorVariant& value) noexcept {
        if (m_open.empty()) {
            if (m_value == nullptr)
                return refuse("it is neither an array nor an object");
            *m_value = value;
            return true;
        }
        const place& into = m_open.back();
        return into.list != nullptr ? into.list->Append(value) : into.set->Set(m_name, value);
    }
    bool close() noexcept {
        m_open.pop_back();
        return true;
    }

    qorVariant* m_value = nullptr;
    place m_root;
    std::vector<place> m_open; // lists and sets that have begun
    std::string m_name;        // of the value that comes next
};

bool parse(const char* text, uint64 length, json_builder builder) noexcept {
    return json::sax_parse(text, text + length, &builder);
}

} // namespace

namespace qor::container {

bool write_json(const qorVariant& value, uint32 indent, qorString& out) noexcept {
    return write_text(value, indent, out);
}
bool write_json(IQORVariantList* list, uint32 indent, qorString& out) noexcept { return write_text(list, indent, out); }
bool write_json(IQORAttributeSet* set, uint32 indent, qorString& out) noexcept { return write_text(set, indent, out); }

bool read_json(const char* text, uint64 length, qorVariant& value) noexcept {
    return parse(text, length, json_builder(value));
}
bool read_json(const char* text, uint64 length, IQORVariantList* list) noexcept {
    return parse(text, length, json_builder(list));
}
bool read_json(const char* text, uint64 length, IQORAttributeSet* set) noexcept {
    return parse(text, length, json_builder(set));
}

} // namespace qor::container

bool qor::glue::qorVariant_WriteJson(const qorVariant* self, uint32 indent, qorString& out) noexcept {
    return container::write_json(*self, indent, out);
}

bool qor::glue::qorVariant_ReadJson(qorVariant* self, const char* text, uint64 length) noexcept {
    qorVariant value;
    if (!container::read_json(text, length, value))
        return false;
    *self = std::move(value);
    return true;
}
