// Inside the time facility on Linux: which values of TZ name a time zone.
#pragma once

namespace qor::time {

// Whether the C library knows the zone: a file of the zone database, or a rule in POSIX notation
// ("CET-1CEST,M3.5.0,M10.5.0/3"). An empty name means UTC.
bool is_zone(const char* name);

// Whether it is safe to ask the C library for the zone: it would wait if the zone's file is a pipe or a device.
bool can_be_asked_for(const char* name);

} // namespace qor::time
