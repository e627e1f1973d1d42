#include "progress.h"

#include "message_names.h"
#include "qor/qor.h"
#include "terminal.h"
#include "text.h"

#include <cmath>
#include <cstdio>

namespace qor::heap_tool {

namespace message = qor::messages::heap;

namespace {

constexpr auto step = std::chrono::milliseconds(250);

} // namespace

progress::progress() : m_is_shown(error_is_terminal()) {}

void progress::begin(std::string_view name, uint64 size) {
    m_name = name;
    m_size = size;
    m_begin = m_last = clock::now();
}

bool progress::is_due() {
    if (!m_is_shown || clock::now() - m_last < step)
        return false;
    m_last = clock::now();
    return true;
}

void progress::update(uint64 position, uint64 records) {
    if (!is_due())
        return;
    const double seconds = std::chrono::duration<double>(m_last - m_begin).count();
    const std::string rate = fixed(static_cast<double>(records) / seconds / 1e6, 1);
    if (m_size == 0 || position == 0 || position > m_size)
        return show(text_of(message::progress_without_end, {m_name, std::to_string(records), rate}));
    const double share = static_cast<double>(position) / static_cast<double>(m_size);
    show(text_of(message::progress, {m_name, std::to_string(static_cast<int>(share * 100)), rate,
                                     std::to_string(std::lround(seconds / share - seconds))}));
}

void progress::show_modules(uint32 done, uint32 all) {
    if (is_due())
        show(text_of(message::progress_of_symbols, {std::to_string(done), std::to_string(all)}));
}

void progress::show(const std::string& text) {
    if (!m_is_shown)
        return;
    clear();
    fputtext(stderr, text.data(), text.size());
    std::fputs("\r", stderr);
    std::fflush(stderr);
    m_has_line = true;
}

void progress::clear() {
    if (m_has_line)
        std::fputs("\x1b[K", stderr);
    m_has_line = false;
}

} // namespace qor::heap_tool
