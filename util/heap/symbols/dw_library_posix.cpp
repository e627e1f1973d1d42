#include "dw_library_posix.h"

#include "compression/shared_library.h"

namespace qor::heap {

namespace {

dw_functions functions;
bool is_loaded = false;

} // namespace

bool load_dw(std::string& reason) {
    if (is_loaded)
        return true;
    void* const library = compression::load_library("libdw.so.1", reason);
    if (library == nullptr) {
        reason += " (Debian package: libdw1)";
        return false;
    }
#define QOR_DW_FUNCTION(name)                                                                                          \
    functions.name = reinterpret_cast<decltype(::name)*>(compression::find_function(library, #name));                  \
    if (functions.name == nullptr) {                                                                                   \
        reason = "no function " #name;                                                                                 \
        return false;                                                                                                  \
    }
#include "dw_functions_posix.def"
#undef QOR_DW_FUNCTION
    functions.elf_version(EV_CURRENT);
    is_loaded = true;
    return true;
}

const dw_functions& dw() noexcept { return functions; }

} // namespace qor::heap
