// The page: a recording in one HTML file that draws itself. docs/heap-page.md shows it.
//
// Names of the recording are data: they stand in a compressed block, and the script shows them as text. The few that
// stand in the HTML itself are escaped. The policy in the file allows the script and the styles of this build and
// nothing else, so a browser loads nothing and sends nothing.
#pragma once

#include "qor-heap/export/named_profile.h"
#include "qor-heap/export/text_sink.h"

#include <string>

namespace qor::heap_tool {

// Limits of a page. Smaller places beyond them are summed up in one.
inline constexpr std::size_t most_page_bytes = 10U << 20;
inline constexpr std::size_t most_page_places = 100'000;

// Writes the page of `now`, in the user's language; with `earlier`, the comparison of both. generator: name and version
// of the program.
void write_page(const named_profile& now, const named_profile* earlier, std::string_view generator, text_sink& out);

} // namespace qor::heap_tool
