#include "report_streams.h"

#include <charconv>

namespace {

// Standard error may still be written while the process ends, so its buffer lives as long.
char err_buffer[64 * 1024];

} // namespace

report_streams::report_streams(std::FILE* out, std::FILE* err)
    : m_out(out), m_err(err), m_one_place(streams_share_a_place()), m_flushed(std::chrono::steady_clock::now()) {
    std::setvbuf(m_err, err_buffer, _IOFBF, sizeof err_buffer);
}

report_streams::~report_streams() {
    std::fflush(m_err);
    std::setvbuf(m_err, nullptr, _IONBF, 0);
}

std::FILE* report_streams::out() {
    switch_to(m_out);
    return m_out;
}

std::FILE* report_streams::err() {
    switch_to(m_err);
    const auto now = std::chrono::steady_clock::now();
    if (now - m_flushed > patience) {
        std::fflush(m_err);
        m_flushed = now;
    }
    return m_err;
}

void report_streams::progress(unsigned count) {
    char text[16];
    char* const end = std::to_chars(text, text + sizeof text - 1, count).ptr;
    *end = '\r';
    std::fwrite(text, 1, static_cast<std::size_t>(end + 1 - text), err());
}

void report_streams::switch_to(std::FILE* stream) {
    if (m_one_place && m_last != nullptr && m_last != stream)
        std::fflush(m_last);
    m_last = stream;
}
