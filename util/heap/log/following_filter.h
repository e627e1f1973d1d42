// Reads a log that somebody is still writing: passes on its whole lines only, so that a line of which the end is not
// written yet is not taken for a short one. The log may be compressed, as for decompressing_filter.
#pragma once

#include "decompressing_filter.h"

#include <string>

namespace qor::heap {

class following_filter final : public IQORFileFilter {
public:
    explicit following_filter(const char* path) : m_decompressor(path) {}

    answer IsFor(const char*, uint64) noexcept override { return answer::yes; }
    bool Convert(const char** next, const char* end, bool is_at_end, char** out, char* out_end) noexcept override;

private:
    // A longer line is passed on in pieces, for the reader to refuse it.
    static constexpr std::size_t longest_kept = std::size_t{257} << 20;

    void pass_lines_on(char** out, char* out_end);
    bool is_decided(const char** next, const char* end);
    bool add_text(const char** next, const char* end);

    decompressing_filter m_decompressor;
    std::string m_text; // not passed on yet
    std::string m_head; // the first bytes, until they tell whether the log is compressed
    bool m_is_decided = false;
    bool m_is_compressed = false;
};

} // namespace qor::heap
