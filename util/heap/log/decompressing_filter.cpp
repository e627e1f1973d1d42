#include "decompressing_filter.h"

#include <cstddef>

namespace qor::heap {

using outcome = compression::decompressor::outcome;

IQORFileFilter::answer decompressing_filter::IsFor(const char* beginning, uint64 size) noexcept {
    const compression::beginning found = compression::recognise({beginning, static_cast<std::size_t>(size)});
    return found.is == compression::format::none ? answer::no : found.is_open ? answer::undecided : answer::yes;
}

bool decompressing_filter::Convert(const char** next, const char* end, bool is_at_end, char** out,
                                   char* out_end) noexcept {
    return qor::or_end([&] {
        const outcome found = m_decompressor.convert(*next, end, *out, out_end);
        if (found != outcome::good) {
            set_error(found);
            return false;
        }
        if (is_at_end && *out != out_end && !m_decompressor.is_between_streams()) {
            qorSetLastError(qorError_file_ends, m_path.c_str(), std::to_string(m_decompressor.position()).c_str());
            return false;
        }
        return true;
    });
}

void decompressing_filter::set_error(outcome what) const {
    switch (what) {
    case outcome::no_library:
        qorSetLastError(qorError_no_decompressor, m_path.c_str(), compression::name_of(m_decompressor.stream()),
                        m_decompressor.library(), m_decompressor.reason().c_str());
        break;
    case outcome::window_limit:
        qorSetLastError(qorError_compression_window, m_path.c_str(),
                        std::to_string(std::size_t{1} << (compression::decompressor::window_bits - 20)).c_str());
        break;
    case outcome::out_of_memory:
        qorEndOutOfMemory();
    case outcome::damaged:
    case outcome::good:
        qorSetLastError(qorError_compression_damaged, m_path.c_str(),
                        std::to_string(m_decompressor.position()).c_str());
        break;
    }
}

} // namespace qor::heap
