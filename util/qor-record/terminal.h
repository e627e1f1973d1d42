// Texts for people, in UTF-8.
#pragma once

#include <string_view>

namespace qor::record {

enum class stream { output, error };
void write_text(stream to, std::string_view text);

} // namespace qor::record
