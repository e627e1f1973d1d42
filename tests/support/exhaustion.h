// A system that fails for one request. Test programs are linked with --wrap for the functions that request resources:
// malloc on every system, and CreateEventW on Windows.
#pragma once

namespace qor::test {

// Makes the next of these requests fail that the program's own code makes, including code that a client compiles in.
void refuse_next_request() noexcept;

// For the replacements of these functions: returns true once, if the current request must fail.
bool is_refused() noexcept;

} // namespace qor::test
