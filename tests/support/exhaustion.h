// A system that fails for one request. Test programs are linked with --wrap for the functions that request resources:
// malloc on every system, and CreateEventW on Windows.
#pragma once

namespace qor::test {

// The next of these requests that the program makes fails: its own code's, that is also what a client compiles in.
void refuse_next_request() noexcept;

// Inside the replacements: whether this request is the one.
bool is_refused() noexcept;

} // namespace qor::test
