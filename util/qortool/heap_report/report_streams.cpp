#include "report_streams.h"

#include <charconv>

namespace {

// Standard error may still be written while the process ends, so its buffer is static.
char err_buffer[64 * 1024];

} // namespace

report_streams::report_streams(std::FILE* out, std::FILE* err)
    : m_out(out), m_err(err), m_one_place(streams_share_a_place()), m_flushed(std::chrono::steady_clock::now()) {
    std::fflush(m_out);
    std::setvbuf(m_err, err_buffer, _IOFBF, sizeof err_buffer);
}

report_streams::~report_streams() {
    write_progress();
    std::fflush(m_err);
    std::setvbuf(m_err, nullptr, _IONBF, 0);
}

std::FILE* report_streams::out() {
    switch_to(m_out);
    return m_out;
}

std::FILE* report_streams::err() {
    switch_to(m_err);
    write_progress();
    flush_if_stale();
    return m_err;
}

void report_streams::flush_if_stale() {
    const auto now = std::chrono::steady_clock::now();
    if (now - m_flushed > stale_after) {
        write_progress();
        std::fflush(m_err);
        m_flushed = now;
    }
}

void report_streams::before_wait() {
    write_progress();
    std::fflush(m_err);
    std::fflush(m_out);
    m_flushed = std::chrono::steady_clock::now();
}

void report_streams::progress(unsigned count) {
    constexpr std::ptrdiff_t longest = 16;
    if (m_progress + sizeof m_progress - m_next_progress < longest)
        write_progress();
    switch_to(m_err);
    m_next_progress = std::to_chars(m_next_progress, m_next_progress + longest - 1, count).ptr;
    *m_next_progress++ = '\r';
}

void report_streams::write_progress() {
    std::fwrite(m_progress, 1, static_cast<std::size_t>(m_next_progress - m_progress), m_err);
    m_next_progress = m_progress;
}

void report_streams::switch_to(std::FILE* stream) {
    if (m_one_place && m_last != nullptr && m_last != stream) {
        write_progress();
        std::fflush(m_last);
    }
    m_last = stream;
}
