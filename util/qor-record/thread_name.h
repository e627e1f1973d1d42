// The name that a program has given to a thread, for debuggers and for us.
#pragma once

#include <cstdint>
#include <string>

namespace qor::record {

// Empty: it has none, or has ended.
std::string name_of_thread(std::int32_t process, std::uint32_t thread);

} // namespace qor::record
