// Writes JSON: commas and quotes. A text is valid UTF-8.
#pragma once

#include "qor/system/Types.h"

#include <string>
#include <string_view>
#include <utility>

namespace qor::heap_tool {

class json_writer {
public:
    json_writer& begin(char bracket) {
        separate();
        m_text += bracket;
        m_is_first = true;
        return *this;
    }
    json_writer& end(char bracket) {
        m_text += bracket;
        m_is_first = false;
        return *this;
    }
    json_writer& key(std::string_view name) {
        text(name);
        m_text += ':';
        m_is_first = true;
        return *this;
    }
    json_writer& text(std::string_view value);
    json_writer& number(uint64 value) { return raw(std::to_string(value)); }
    json_writer& flag(bool value) { return raw(value ? "true" : "false"); }
    json_writer& raw(std::string_view value) {
        separate();
        m_text += value;
        return *this;
    }
    // Where a person may begin a new line.
    json_writer& line() {
        m_is_line = true;
        return *this;
    }

    // What has been written since the last call.
    std::string take() { return std::exchange(m_text, {}); }
    std::size_t size() const noexcept { return m_text.size(); }

private:
    void separate() {
        if (!m_is_first)
            m_text += ',';
        if (m_is_line)
            m_text += '\n';
        m_is_first = m_is_line = false;
    }

    std::string m_text;
    bool m_is_first = true;
    bool m_is_line = false;
};

} // namespace qor::heap_tool
