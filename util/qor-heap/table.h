// Tables of places on standard output.
#pragma once

#include "export/named_profile.h"
#include "options.h"

#include <span>
#include <string>
#include <vector>

namespace qor::heap_tool {

// Collects text for standard output and writes it in large pieces. A terminal gets nothing that could control it.
class output_text {
public:
    output_text() = default;
    output_text(const output_text&) = delete;
    output_text& operator=(const output_text&) = delete;
    ~output_text() { write_out(); }

    output_text& operator<<(std::string_view text) {
        m_text += text;
        if (m_text.size() > limit)
            write_out();
        return *this;
    }
    void write_out();

private:
    static constexpr std::size_t limit = 64 * 1024;
    std::string m_text;
};

// Lines of a place: its stack from the innermost function on, at most so many of them (0: all), then how many are left
// out. The first one tells the type, too. At least one line.
std::vector<std::string> lines_of(const named_profile& in, const heap::profile::place& place, uint64 most);

// "FUNCTION SOURCE:LINE", or "FUNCTION in OBJECT" without a source line.
std::string line_of(const named_profile& in, const named_profile::function& of);

struct table_row {
    const heap::profile::place* place;
    std::vector<std::string> cells; // beside the place
};

// `head` has a cell more than the rows, for the place.
void write_table(output_text& out, const named_profile& in, const std::vector<std::string>& head,
                 std::span<const table_row> rows, uint64 most_frames);

// Rows of numbers: all cells are right-aligned, except the last one if `is_last_text`.
void write_numbers(output_text& out, const std::vector<std::vector<std::string>>& rows, bool is_last_text);

} // namespace qor::heap_tool
