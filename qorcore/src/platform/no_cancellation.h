// Inside the library: waits that must not be cancelled.
#pragma once

namespace qor::platform {

// While it exists, the calling thread is not cancelled (pthread_cancel). A cancellation unwinds the stack, which no
// operation of the table lets through. Windows has no cancellation.
class no_cancellation {
public:
    no_cancellation() noexcept;
    no_cancellation(const no_cancellation&) = delete;
    no_cancellation& operator=(const no_cancellation&) = delete;
    ~no_cancellation();

private:
    [[maybe_unused]] int m_before = 0;
};

} // namespace qor::platform
