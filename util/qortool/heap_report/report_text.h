// Builds the text of a long report without printf, which takes ten times as long: there may be millions of lines.
#pragma once

#include "qor/qor.h"
#include "report_streams.h"

#include <charconv>
#include <cstring>
#include <memory>
#include <string_view>

// Writes to standard output in large pieces; the destructor writes the last one.
class report_text {
public:
    explicit report_text(report_streams& streams) : m_streams(streams) {}
    report_text(const report_text&) = delete;
    report_text& operator=(const report_text&) = delete;
    ~report_text() { write_out(); }

    report_text& add(std::string_view text) {
        if (text.size() > free_bytes()) {
            write_out();
            if (text.size() > size) {
                fputtext(m_streams.out(), text.data(), text.size());
                return *this;
            }
        }
        std::memcpy(m_next, text.data(), text.size());
        m_next += text.size();
        return *this;
    }

    template <class NUMBER>
    report_text& add_number(NUMBER number, int base = 10) {
        if (free_bytes() < 24)
            write_out();
        m_next = std::to_chars(m_next, m_text.get() + size, number, base).ptr;
        return *this;
    }

private:
    static constexpr std::size_t size = 64 * 1024;

    std::size_t free_bytes() const noexcept { return static_cast<std::size_t>(m_text.get() + size - m_next); }

    void write_out() {
        if (m_next != m_text.get())
            fputtext(m_streams.out(), m_text.get(), size - free_bytes());
        m_next = m_text.get();
    }

    report_streams& m_streams;
    std::unique_ptr<char[]> m_text = std::make_unique<char[]>(size);
    char* m_next = m_text.get();
};
