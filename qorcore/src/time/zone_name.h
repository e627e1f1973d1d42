// Inside the time facility on Linux: which values of TZ name a time zone.
#pragma once

namespace qor::time {

// Whether the C library knows the zone: a file of the zone database, or the rules themselves as POSIX writes
// them ("CET-1CEST,M3.5.0,M10.5.0/3"). An empty name is UTC.
bool is_zone(const char* name);

// Whether the C library can be asked for the zone. It would wait where a pipe or a device has the place of the zone's
// file.
bool can_be_asked_for(const char* name);

} // namespace qor::time
