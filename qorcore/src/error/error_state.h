// Inside the library: one error with its inserts. The catalog makes its text (catalog/error_texts.cpp) when somebody
// asks for it, so that setting an error that nobody reads costs no look-up.
#pragma once

#include "qor/qor.h"

#include <string>

namespace qor::error {

struct state {
    static constexpr uint32 max_inserts = 10;

    state() = default;
    // A number that no error has becomes qorError_unknown. `texts` are ten, or null.
    state(uint32 wanted, const char* const* texts);

    qorErrorClass error_class() const noexcept;

    uint32 number = qorError_none;
    std::string inserts[max_inserts];
};

// The calling thread's last error.
const state& current() noexcept;
void make_current(const state& error) noexcept;

} // namespace qor::error
