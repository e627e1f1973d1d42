// A system that has nothing left, for one request. Test programs are linked with --wrap for what asks it: on every
// system malloc, on Windows also CreateEventW.
#pragma once

namespace qor::test {

// The next of these requests that the program makes fails: its own code's, that is also what a client compiles in.
void refuse_next_request() noexcept;

// Inside the replacements: whether this request is the one.
bool is_refused() noexcept;

} // namespace qor::test
