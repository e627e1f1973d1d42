// A profile in the forms that other programs read. docs/heap-page.md describes them.
#pragma once

#include "named_profile.h"
#include "text_sink.h"

#include <string>
#include <utility>
#include <vector>

namespace qor::heap_tool {

// Folded stacks, `outermost;…;innermost BYTES`, a line for each stack that has any.
void export_folded(const named_profile& of, measure what, text_sink& out);

// The whole profile. docs/heap-profile.schema.json is its schema.
inline constexpr int json_version = 1;
void export_json(const named_profile& of, std::string_view generator, text_sink& out);

// RFC 4180: a line for each place, and one with the names of the columns.
void export_csv(const named_profile& of, text_sink& out);

// A profile as fleets' profile stores take it in: the gzipped protocol buffer perftools.profiles.Profile. `labels` are
// keys and values; every sample has them. False: the library that compresses is missing, and `reason` says so.
using label_list = std::vector<std::pair<std::string, std::string>>;
bool export_pprof(const named_profile& of, const label_list& labels, std::string_view generator, text_sink& out,
                  std::string& reason);

} // namespace qor::heap_tool
