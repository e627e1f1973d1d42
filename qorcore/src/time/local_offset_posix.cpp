#include "time/local_offset.h"

#include "error/error.h"
#include "time/zone_name.h"

#include <cstdlib>
#include <ctime>
#include <mutex>
#include <string>

namespace {

// Whether the zone is one. The C library is not asked about others: it takes UTC for what it does not know, and says nothing,
// but it would wait at a pipe. TZ is looked at again when it has changed.
bool check_zone() {
    const char* const name = std::getenv("TZ");
    if (name == nullptr)
        return true;
    static std::mutex lock;
    static std::string& checked = *new std::string;
    static bool known = true;
    const std::lock_guard hold(lock);
    if (checked != name) {
        checked = name;
        known = qor::time::is_zone(name);
        if (!known)
            qorDebug(qorDebugAllocateCode("system.time"), "TZ names no time zone, UTC stands in for it: %s",
                     name);
    }
    if (!known)
        qor::error::set(qorError_unknown_time_zone, {name});
    return known;
}

} // namespace

int32 qor::time::local_offset(uint64 clock) noexcept {
    const auto seconds =
        static_cast<std::time_t>(static_cast<int64>(clock / qorTicksPerSecond) - seconds_to_1970);
    if (!check_zone())
        return 0;
    // The zone may have changed, and localtime_r need not look.
    tzset();
    std::tm local;
    return localtime_r(&seconds, &local) != nullptr ? static_cast<int32>(local.tm_gmtoff) : 0;
}
