#include "table.h"

#include "export/safe_text.h"
#include "message_names.h"
#include "qor/qor.h"
#include "text.h"

#include <algorithm>

namespace qor::heap_tool {

namespace message = qor::messages::heap;

void output_text::write_out() {
    if (!m_text.empty())
        fputtext(stdout, m_text.data(), m_text.size());
    m_text.clear();
}

std::string line_of(const named_profile& in, const named_profile::function& of) {
    std::string line = in.text(of.name);
    if (of.file != 0) {
        line += ' ';
        line += in.text(of.file);
        if (of.line != 0)
            line += ':' + std::to_string(of.line);
    } else if (of.module != 0) {
        const std::string_view object = file_name(in.text(of.module));
        // A function without a name is called after its object.
        if (!std::string_view(in.text(of.name)).starts_with(object))
            line.append(" (").append(object) += ')';
    }
    return line;
}

std::vector<std::string> lines_of(const named_profile& in, const heap::profile::place& place, uint64 most) {
    const std::vector<named_profile::function> stack = in.stack(place);
    std::vector<std::string> lines;
    const std::size_t shown = most == 0 ? stack.size() : std::min<std::size_t>(stack.size(), most);
    for (std::size_t i = 0; i < shown; ++i)
        lines.push_back(line_of(in, stack[i]));
    if (lines.empty())
        lines.push_back(text_of(message::unknown_place));
    if (place.type_name != 0)
        lines.front() += " [" + in.text(in.type_name(place)) + ']';
    if (shown < stack.size())
        lines.push_back(text_of(message::more_frames, {std::to_string(stack.size() - shown)}));
    return lines;
}

void write_table(output_text& out, const named_profile& in, const std::vector<std::string>& head,
                 std::span<const table_row> rows, uint64 most_frames) {
    const std::size_t numbers = head.size() - 1;
    std::vector<std::size_t> widths;
    for (std::size_t i = 0; i < numbers; ++i) {
        widths.push_back(width_of(head[i]));
        for (const table_row& each : rows)
            widths[i] = std::max(widths[i], width_of(each.cells[i]));
    }
    std::size_t indent = 2;
    for (std::size_t i = 0; i < numbers; ++i) {
        out << padded(head[i], widths[i]) << "  ";
        indent += widths[i] + 2;
    }
    out << head.back() << "\n";
    for (const table_row& each : rows) {
        for (std::size_t i = 0; i < numbers; ++i)
            out << padded(each.cells[i], widths[i]) << "  ";
        bool is_first = true;
        for (const std::string& line : lines_of(in, *each.place, most_frames)) {
            out << (is_first ? std::string() : std::string(indent, ' ')) << line << "\n";
            is_first = false;
        }
    }
}

void write_numbers(output_text& out, const std::vector<std::vector<std::string>>& rows, bool is_last_text) {
    std::vector<std::size_t> widths;
    for (const auto& row : rows) {
        widths.resize(std::max(widths.size(), row.size()));
        for (std::size_t i = 0; i < row.size(); ++i)
            widths[i] = std::max(widths[i], width_of(row[i]));
    }
    for (const auto& row : rows) {
        for (std::size_t i = 0; i < row.size(); ++i) {
            const bool is_text = is_last_text && i + 1 == row.size();
            out << (i != 0 ? "  " : "") << (is_text ? row[i] : padded(row[i], widths[i]));
        }
        out << "\n";
    }
}

} // namespace qor::heap_tool
