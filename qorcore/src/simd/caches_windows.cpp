#include "simd/simd.h"

#include <memory>
#include <windows.h>

qor::simd::cache_sizes qor::simd::read_cache_sizes() noexcept {
    using entry = SYSTEM_LOGICAL_PROCESSOR_INFORMATION;
    cache_sizes sizes{};
    DWORD bytes = 0;
    GetLogicalProcessorInformation(nullptr, &bytes);
    const auto count = bytes / sizeof(entry);
    const auto entries = std::make_unique<entry[]>(count);
    if (!GetLogicalProcessorInformation(entries.get(), &bytes))
        return sizes;
    for (std::size_t i = 0; i < count; ++i) {
        const entry& one = entries[i];
        if (one.Relationship != RelationCache || one.Cache.Type == CacheInstruction)
            continue;
        if (one.Cache.Level == 1)
            sizes.first_data = one.Cache.Size;
        else if (one.Cache.Level == 2)
            sizes.second = one.Cache.Size;
        else if (one.Cache.Level == 3)
            sizes.third = one.Cache.Size;
    }
    return sizes;
}
