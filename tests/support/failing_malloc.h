// Memory that runs out on command. Test programs are linked with --wrap=malloc: every malloc in their own
// code, that is also in what a client compiles in, comes here first; the libraries' does not.
#pragma once

namespace qor::test {

// While one lives, malloc fails.
class failing_malloc {
public:
    failing_malloc() noexcept;
    failing_malloc(const failing_malloc&) = delete;
    failing_malloc& operator=(const failing_malloc&) = delete;
    ~failing_malloc();
};

} // namespace qor::test
