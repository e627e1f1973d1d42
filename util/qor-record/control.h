// qor-record control PREFIX start|stop: a running recorder is found by the name of its files.
#pragma once

#include <string>

namespace qor::record {

class log_names;

// The name of the socket at which the recorder of these files listens. It names the folder by its number, so that any
// path to it leads there.
std::string control_name(const log_names& names);

// The program, with the words behind `control`. The exit code.
int control(int argc, char** argv);

} // namespace qor::record
