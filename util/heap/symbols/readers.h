// Reads the symbols of many modules, and keeps what a damaged file does to the reader away from the program where the
// system can.
#pragma once

#include "module_answer.h"

#include <functional>
#include <vector>

namespace qor::heap {

// Calls `done` for each of the modules, in any order. `tell` as in class symbols; the numbers of modules are filled in
// here.
void read_all_symbols(const std::vector<module_request>& modules, const symbol_options& options,
                      const symbols::progress& tell, const std::function<void(std::size_t, module_answer&&)>& done);

} // namespace qor::heap
