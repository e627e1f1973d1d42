// For the driver: what a crash leaves behind.
#pragma once

#include <string>

// From now on a crash leaves `input`, as it is then, in the file "crash-input" of the current folder.
void leave_input_on_crash(const std::string& input);
