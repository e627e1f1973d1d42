#include "messages.h"
#include "options.h"

namespace qor::record {

std::span<const option_row> options_of_system() {
    static const option_row rows[] = {
        {"--system-heap", false, [](options& chosen, const std::string&) { return chosen.wants_system_heap = true; },
         message::system_heap_syntax, message::system_heap_description},
    };
    return rows;
}

} // namespace qor::record
