#include "report_streams.h"

namespace {

// Standard error may still be written while the process ends, so its buffer lives as long.
char err_buffer[64 * 1024];

} // namespace

report_streams::report_streams()
    : m_one_place(streams_share_a_place()), m_flushed(std::chrono::steady_clock::now()) {
    std::setvbuf(stderr, err_buffer, _IOFBF, sizeof err_buffer);
}

report_streams::~report_streams() {
    std::fflush(stderr);
    std::setvbuf(stderr, nullptr, _IONBF, 0);
}

std::FILE* report_streams::out() {
    switch_to(stdout);
    return stdout;
}

std::FILE* report_streams::err() {
    switch_to(stderr);
    const auto now = std::chrono::steady_clock::now();
    if (now - m_flushed > patience) {
        std::fflush(stderr);
        m_flushed = now;
    }
    return stderr;
}

void report_streams::switch_to(std::FILE* stream) {
    if (m_one_place && m_last != nullptr && m_last != stream)
        std::fflush(m_last);
    m_last = stream;
}
