#include "time/local_offset.h"

#include <ctime>

int32 qor::time::local_offset(uint64 clock) noexcept {
    const auto seconds =
        static_cast<std::time_t>(static_cast<int64>(clock / qorTicksPerSecond) - seconds_to_1970);
    // The zone may have changed, and localtime_r need not look.
    tzset();
    std::tm local;
    return localtime_r(&seconds, &local) != nullptr ? static_cast<int32>(local.tm_gmtoff) : 0;
}
