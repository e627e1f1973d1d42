// Inside the POSIX half of child processes: the options in the form that the start needs, and why a start has failed.
#pragma once

#include "child/start_posix.h"
#include "qor/qor.h"

#include <string>
#include <vector>

namespace qor::child {

// Fills in everything but the descriptors. The plan points into `files`, the paths where the program may be.
void prepare(const qorChildProcessOptions& options, start_plan& plan, std::vector<std::string>& files);

// Opens what a stream leads to. `childs` are descriptors that the own process closes after the start. Returns false
// with the last error.
bool open_stream(const qorChildStream& stream, int number, start_plan& plan, std::vector<int>& childs);

// Adds the descriptors that are named. Returns false with the last error.
bool add_handles(const qorChildProcessOptions& options, start_plan& plan);

// Sets the last error.
void set_start_error(const qorChildProcessOptions& options, const std::vector<std::string>& files,
                     const start_result& failed);

} // namespace qor::child
