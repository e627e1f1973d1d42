// Inside the SIMD routines on Linux: the kernel's description of the caches.
#pragma once

#include "simd/simd.h"

#include <string>

namespace qor::simd {

// Reads the files index<n>/level, type and size in the folder.
cache_sizes read_cache_files(const std::string& folder);

} // namespace qor::simd
