#include "json_writer.h"

#include <cstdio>

namespace qor::heap_tool {

json_writer& json_writer::text(std::string_view value) {
    separate();
    m_text += '"';
    for (const char each : value) {
        if (each == '"' || each == '\\') {
            m_text += '\\';
            m_text += each;
        } else if (static_cast<unsigned char>(each) < 0x20) {
            char code[8];
            std::snprintf(code, sizeof code, "\\u%04x", static_cast<unsigned>(each));
            m_text += code;
        } else {
            m_text += each;
        }
    }
    m_text += '"';
    return *this;
}

} // namespace qor::heap_tool
