#include "time/local_offset.h"

#include "error/error.h"
#include "time/zone_name.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <mutex>
#include <string>

namespace {

std::time_t seconds_of(uint64 clock) {
    return static_cast<std::time_t>(static_cast<int64>(clock / qorTicksPerSecond) - qor::time::seconds_to_1970);
}

// Whether the zone in use counts leap seconds, as zones in the database's folder "right" do. In such a zone, a full
// minute of POSIX time well after the last leap second is not a full minute.
bool counts_leap_seconds() {
    constexpr std::time_t full_minute = 4'102'444'800;
    std::tm utc;
    return gmtime_r(&full_minute, &utc) != nullptr && utc.tm_sec != 0;
}

// Returns "+01:00"; empty for UTC.
std::string ahead_of_utc(int32 offset) {
    if (offset == 0)
        return {};
    const unsigned size = static_cast<unsigned>(offset < 0 ? -offset : offset);
    char text[32];
    std::snprintf(text, sizeof text, size % 60 != 0 ? "%c%02u:%02u:%02u" : "%c%02u:%02u", offset < 0 ? '-' : '+',
                  size / 3600, size / 60 % 60, size % 60);
    return text;
}

uint32 trace_code() { return qorDebugAllocateCode("system.time"); }

// Whether the C library was asked for the zone of the last look. If it was not, UTC is used.
std::atomic<bool> was_asked_for = true;

} // namespace

const int64 qor::time::shortest_period = 15 * 60;

// The C library does not report an unknown zone: it uses the part of the name that it understands, or UTC.
void qor::time::look_at_zone(uint64 clock) noexcept {
    const char* const tz = std::getenv("TZ");
    static std::mutex lock;
    static std::string& checked = *new std::string;
    static bool known = true;
    static bool usable = true;
    const char* const name = tz != nullptr ? tz : "/etc/localtime";
    const std::lock_guard hold(lock);
    const bool is_new = checked != name;
    if (is_new) {
        checked = name;
        usable = tz == nullptr || can_be_asked_for(tz);
        known = usable && (tz == nullptr || is_zone(tz));
    }
    // localtime_r is not required to read the zone again.
    if (usable)
        tzset();
    was_asked_for = usable;
    if (!known) {
        const std::string ahead = ahead_of_utc(local_offset(clock));
        error::set(qorError_unknown_time_zone, {name, ahead.c_str()});
        if (is_new)
            qorDebug(trace_code(), "TZ does not name a time zone, the C library uses UTC%s instead: %s", ahead.c_str(),
                     name);
    } else if (counts_leap_seconds()) {
        error::set(qorError_zone_with_leap_seconds, {name});
        if (is_new)
            qorDebug(trace_code(), "The time zone counts leap seconds, which is not supported: %s", name);
    }
}

int32 qor::time::local_offset(uint64 clock) noexcept {
    if (!was_asked_for)
        return 0;
    const std::time_t seconds = seconds_of(clock);
    std::tm local;
    return localtime_r(&seconds, &local) != nullptr ? static_cast<int32>(local.tm_gmtoff) : 0;
}
