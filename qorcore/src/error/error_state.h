// Inside the library: one error with its inserts. Its text is only made on demand (catalog/error_texts.cpp), so setting
// an error that nobody reads costs no look-up.
#pragma once

#include "qor/qor.h"

#include <string>

namespace qor::error {

struct state {
    static constexpr uint32 max_inserts = 10;

    state() = default;
    // An unknown number becomes qorError_unknown. `texts` is an array of ten, or null.
    state(uint32 wanted, const char* const* texts);

    qorErrorClass error_class() const noexcept;

    uint32 number = qorError_none;
    std::string inserts[max_inserts];
};

// The calling thread's last error.
const state& current() noexcept;
void make_current(const state& error) noexcept;

// Begins without a last error, so that it shows whether foreign code sets one. After a success the earlier one is
// brought back.
class apart {
public:
    apart() noexcept;
    void bring_back() const noexcept { make_current(m_before); }

private:
    state m_before;
};

} // namespace qor::error
