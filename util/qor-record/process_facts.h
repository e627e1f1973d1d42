// Facts about a process, from /proc. If they are not there, the result is empty or 0.
#pragma once

#include "shared/arena.h"

#include <cstdint>
#include <string>

namespace qor::record {

// "/proc/PROCESS/NAME".
std::string path_in_proc(std::int32_t process, const std::string& name);

std::string program_of(std::int32_t process);
std::int32_t parent_of(std::int32_t process);

// By which the program that runs in a process is told from another one. False: it is unknown, or the process has ended.
bool image_of(std::int32_t process, program_image& found);

// The process that has this number in a namespace of its own and runs that program; 0: there is no such process.
std::int32_t find_in_namespaces(std::int32_t number, const program_image& image);

// A descriptor that is readable once the process has ended; -1: there is no such process, or no such descriptor here.
int open_process(std::int32_t process);

// `handle` is the one of open_process().
bool has_ended(std::int32_t process, int handle);

bool is_readable(int descriptor);

} // namespace qor::record
