#include "support/exhaustion.h"

#include <atomic>
#include <cstddef>

namespace {

// Shared by all threads: a thread-local variable may itself need memory.
std::atomic<bool> s_refusing{false};

} // namespace

void qor::test::refuse_next_request() noexcept { s_refusing = true; }
bool qor::test::is_refused() noexcept { return s_refusing.exchange(false); }

extern "C" {

// The linker defines these names.
void* __real_malloc(std::size_t size);
void* __wrap_malloc(std::size_t size);

void* __wrap_malloc(std::size_t size) { return qor::test::is_refused() ? nullptr : __real_malloc(size); }

} // extern "C"
