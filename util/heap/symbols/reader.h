// Reads the symbols of one module after the other. Each system has its own reader.
#pragma once

#include "module_answer.h"

#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace qor::heap {

// Tells that a file is being fetched: the servers, and how much of it is there. False ends that.
using fetching = std::function<bool(std::string_view servers, uint64 done, uint64 all)>;

// Loads the library that reads debug information, where it is not part of the program. False: `reason` says why it
// cannot be used.
bool load_symbol_reader(std::string& reason);

// After load_symbol_reader().
module_answer read_symbols(const module_request& of, const symbol_options& options, const fetching& tell);

} // namespace qor::heap
