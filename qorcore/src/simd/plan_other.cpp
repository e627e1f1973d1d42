// On processors other than x86-64 and AArch64, the plain kernels serve all lengths.
#include "simd/simd.h"

qor::simd::set_list qor::simd::available_sets() noexcept { return {{&plain}, 1}; }

qor::simd::limits qor::simd::find_limits(const instruction_set&, const cache_sizes&) noexcept { return {}; }
