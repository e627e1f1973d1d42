// The lines of the trace and of the log in files begin alike: "2026-11-21T10:22:50.506798Z 1493:1493 ".
#pragma once

#include <string>
#include <vector>

namespace qor::test {

// Returns the lines behind their heads. A line whose head has another form is a failure, and is returned whole.
std::vector<std::string> bodies(const std::string& text);

} // namespace qor::test
