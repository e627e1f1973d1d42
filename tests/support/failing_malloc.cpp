#include "support/failing_malloc.h"

#include <atomic>
#include <cstddef>

namespace {

// Of all threads: a variable of one thread may itself need memory.
std::atomic<bool> s_failing{false};

} // namespace

extern "C" {

// The names are the linker's.
void* __real_malloc(std::size_t size);
void* __wrap_malloc(std::size_t size);

void* __wrap_malloc(std::size_t size) {
    return s_failing ? nullptr : __real_malloc(size);
}

} // extern "C"

namespace qor::test {

failing_malloc::failing_malloc() noexcept {
    s_failing = true;
}
failing_malloc::~failing_malloc() {
    s_failing = false;
}

} // namespace qor::test
