// The parser: toml++ decides which texts are valid, and what scalars mean.
#include "qor/qor.h"
#include "tree.h"

// A text that is invalid in a way that toml++ does not foresee would end the process otherwise.
#ifndef NDEBUG
#define NDEBUG
#endif
#define TOML_ENABLE_WINDOWS_COMPAT 0
#define TOML_ENABLE_FORMATTERS 0
#include <toml++/toml.h>

#include <string>

namespace {

using config::node;

void take_date(const toml::date& from, qorConfigTime& out) noexcept {
    out.has_date = true;
    out.year = from.year;
    out.month = from.month;
    out.day = from.day;
}

void take_time(const toml::time& from, qorConfigTime& out) noexcept {
    out.has_time = true;
    out.hour = from.hour;
    out.minute = from.minute;
    out.second = from.second;
    out.nanosecond = from.nanosecond;
}

// Fills in what the parser knows. Returns false if the two trees differ.
bool fill(node& to, const toml::node& from) {
    qorConfigValue& value = to.value;
    if (const toml::table* const table = from.as_table()) {
        if (value.kind != qorConfigKind::table || table->size() != to.entries.size())
            return false;
        for (node::entry& each : to.entries) {
            const toml::node* const found = table->get(each.name);
            if (found == nullptr || !fill(*each.value, *found))
                return false;
        }
        return true;
    }
    if (const toml::array* const array = from.as_array()) {
        if (value.kind != qorConfigKind::array || array->size() != to.entries.size())
            return false;
        for (std::size_t i = 0; i < array->size(); ++i)
            if (!fill(*to.entries[i].value, *array->get(i)))
                return false;
        return true;
    }
    if (value.kind != qorConfigKind::none)
        return false;
    if (const auto* const text = from.as_string()) {
        value.kind = qorConfigKind::text;
        to.text = text->get();
        value.length = static_cast<uint32>(to.text.size());
    } else if (const auto* const integer = from.as_integer()) {
        value.kind = qorConfigKind::integer;
        value.integer = integer->get();
    } else if (const auto* const number = from.as_floating_point()) {
        value.kind = qorConfigKind::number;
        value.number = number->get();
    } else if (const auto* const boolean = from.as_boolean()) {
        value.kind = qorConfigKind::logical;
        value.logical = boolean->get();
    } else {
        value.kind = qorConfigKind::time;
        if (const auto* const date = from.as_date()) {
            take_date(date->get(), value.time);
        } else if (const auto* const time = from.as_time()) {
            take_time(time->get(), value.time);
        } else if (const auto* const both = from.as_date_time()) {
            take_date(both->get().date, value.time);
            take_time(both->get().time, value.time);
            value.time.has_offset = both->get().offset.has_value();
            value.time.offset = both->get().offset.has_value() ? both->get().offset->minutes : 0;
        } else {
            return false;
        }
    }
    return true;
}

} // namespace

bool config::parse(const char* name, std::string_view text, outline& out) {
    scan(text, out);
    if (out.too_deep_line != 0) {
        qorSetLastError(qorError_config_too_deep, name, std::to_string(out.too_deep_line).c_str(),
                        std::to_string(qor::config::max_depth).c_str());
        return false;
    }
    try {
        const toml::table parsed = toml::parse(text);
        if (!out.is_broken && fill(out.root, parsed))
            return true;
        qorSetLastError(qorError_config_ambiguous, name);
    } catch (const toml::parse_error& failed) {
        qorSetLastError(qorError_config_syntax, name, std::to_string(failed.source().begin.line).c_str(),
                        std::to_string(failed.source().begin.column).c_str(),
                        std::string(failed.description()).c_str());
    }
    return false;
}
