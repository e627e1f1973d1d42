#include "debug/trace_pattern.h"

qor::debug::trace_pattern::trace_pattern(std::string_view text) : m_text(text) {
    const std::size_t first = text.find('*');
    m_has_star = first != text.npos;
    m_first = text.substr(0, first);
    m_least = m_first.size();
    if (!m_has_star)
        return;
    const std::size_t last = text.rfind('*');
    m_last = text.substr(last + 1);
    m_least += m_last.size();
    for (std::size_t at = first + 1; at <= last; ++at) {
        const std::size_t end = text.find('*', at);
        if (end == at)
            continue;
        piece made{std::string(text.substr(at, end - at)), {0, 0}};
        uint32 shorter = 0;
        for (std::size_t i = 1; i < made.text.size(); ++i) {
            while (shorter != 0 && made.text[i] != made.text[shorter])
                shorter = made.shorter[shorter];
            if (made.text[i] == made.text[shorter])
                ++shorter;
            made.shorter.push_back(shorter);
        }
        m_least += made.text.size();
        m_pieces.push_back(std::move(made));
        at = end;
    }
}
