// The end of a leak's line, which describes its origin. Many leaks share an origin, so the most recent texts are kept.
#pragma once

#include "origin_table.h"

#include <string>
#include <string_view>
#include <vector>

namespace qor::heap {

class origin_texts {
public:
    explicit origin_texts(const origin_table& origins) : m_origins(origins), m_kept(kept_count) {}

    // Valid until the next call.
    std::string_view of(uint32 origin) {
        kept& each = m_kept[origin % kept_count];
        if (each.origin != origin) {
            each.origin = origin;
            write(m_origins.get(origin), each.text);
        }
        return each.text;
    }

private:
    struct kept {
        uint32 origin = number_index::none;
        std::string text;
    };

    static constexpr uint32 kept_count = 4096;

    void write(const origin_table::origin& from, std::string& out) const {
        out = " type ";
        out += std::to_string(from.type);
        out += " caller [";
        out += m_origins.printed(from.caller);
        out += "] type_name [";
        out += m_origins.printed(from.type_name);
        out += "] file [";
        out += m_origins.printed(from.file);
        out += "] line ";
        out += std::to_string(from.line);
        out += '\n';
    }

    const origin_table& m_origins;
    std::vector<kept> m_kept;
};

} // namespace qor::heap
