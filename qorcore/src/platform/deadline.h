// Inside the library: the end of a wait.
#pragma once

#include "qor/system/Types.h"

#include <chrono>

namespace qor::platform {

// How much time is left. 0 milliseconds at the beginning mean no limit.
class deadline {
public:
    explicit deadline(uint32 ms) noexcept
        : m_limited(ms != 0), m_end(std::chrono::steady_clock::now() + std::chrono::milliseconds(ms)) {}

    bool is_limited() const noexcept { return m_limited; }
    bool is_over() const noexcept { return m_limited && std::chrono::steady_clock::now() >= m_end; }
    // Milliseconds, rounded up, at most `most`, which is also the result without a limit.
    uint32 left(uint32 most) const noexcept {
        if (!m_limited)
            return most;
        const auto rest = std::chrono::ceil<std::chrono::milliseconds>(m_end - std::chrono::steady_clock::now());
        return rest.count() <= 0 ? 0 : rest.count() < most ? static_cast<uint32>(rest.count()) : most;
    }

private:
    bool m_limited;
    std::chrono::steady_clock::time_point m_end;
};

} // namespace qor::platform
