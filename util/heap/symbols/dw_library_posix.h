// elfutils' libdw, loaded when symbols are first wanted: loading it takes longer than a table without symbols.
#pragma once

#include <elfutils/libdw.h>
#include <elfutils/libdwelf.h>
#include <gelf.h>
#include <string>

namespace qor::heap {

struct dw_functions {
#define QOR_DW_FUNCTION(name) decltype(::name)* name;
#include "dw_functions_posix.def"
#undef QOR_DW_FUNCTION
};

// False: `reason` says why the library cannot be used. Not on several threads at once.
bool load_dw(std::string& reason);

// After a load_dw() that succeeded.
const dw_functions& dw() noexcept;

} // namespace qor::heap
