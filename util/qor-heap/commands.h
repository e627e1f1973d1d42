// The commands. Each returns an exit code.
#pragma once

#include "options.h"

namespace qor::heap_tool {

int run_sites(const options& chosen);
int run_diff(const options& chosen);
int run_timeline(const options& chosen);
int run_tree(const options& chosen);
int run_top(const options& chosen);
int run_page(const options& chosen);
int run_export(const options& chosen);

} // namespace qor::heap_tool
