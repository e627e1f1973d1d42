// The libraries of Windows that are a C run-time: their allocation functions are hooked.
#pragma once

#include <iterator>

namespace qor::record {

inline constexpr const char* runtime_names[] = {"msvcrt.dll",   "ucrtbase.dll", "msvcr70.dll",  "msvcr71.dll",
                                                "msvcr80.dll",  "msvcr90.dll",  "msvcr100.dll", "msvcr110.dll",
                                                "msvcr120.dll", "crtdll.dll"};
static_assert(std::size(runtime_names) <= 32);

} // namespace qor::record
