#include "summary_texts.h"

#include "file_system.h"

#include <algorithm>
#include <string_view>

namespace qor::record {

std::string list_of(const std::vector<std::int32_t>& processes) {
    constexpr std::size_t most = 10;
    std::string list;
    for (std::size_t i = 0; i < std::min(processes.size(), most); ++i)
        (list += i != 0 ? ", " : "") += std::to_string(processes[i]);
    return processes.size() > most ? list + ", ..." : list;
}

long lines_of_memcheck(const std::string& path) {
    raw_file file;
    if (file.open(path) != 0)
        return -1;
    long count = 0;
    bool is_begin = true;
    char piece[64U << 10];
    for (std::size_t size; (size = file.read(piece, sizeof piece)) != 0;)
        for (const char c : std::string_view(piece, size)) {
            count += is_begin && (c == 'A' || c == 'F' || c == 'T') ? 1 : 0;
            is_begin = c == '\n';
        }
    return count > 0 ? count : -1;
}

} // namespace qor::record
