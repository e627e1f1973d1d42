// The file and the address in a caller, as an mtrace log writes it.
#pragma once

#include "qor/system/Types.h"

#include <optional>
#include <string_view>

namespace qor::heap {

struct caller_place {
    std::string_view path;
    uint64 address = 0; // in the file
    bool operator==(const caller_place&) const = default;
};

// Of "FILE:[ADDRESS]" and "FILE:(FUNCTION+OFFSET)[ADDRESS]", which name an address in the file, and of
// "FILE(+OFFSET)[ADDRESS]", where the offset is that address. Nothing for other texts.
std::optional<caller_place> place_in_caller(std::string_view caller) noexcept;

} // namespace qor::heap
