// Facts about a process, from /proc. If they are not there, the result is empty or 0.
#pragma once

#include <cstdint>
#include <string>

namespace qor::record {

// "/proc/PROCESS/NAME".
std::string path_in_proc(std::int32_t process, const std::string& name);

std::string program_of(std::int32_t process);
std::int32_t parent_of(std::int32_t process);

// A descriptor that is readable once the process has ended; -1: there is no such process, or no such descriptor here.
int open_process(std::int32_t process);

// `handle` is the one of open_process().
bool has_ended(std::int32_t process, int handle);

bool is_readable(int descriptor);

// Nanoseconds of the steady clock.
std::uint64_t steady_time();

} // namespace qor::record
