#include "qor/qor.h"
#include "zone.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using qor::test::zone;

// `unix_time` is in seconds since 1970.
std::string local(int64 unix_time) {
    qorTimeInfo info;
    qorConvertTime(static_cast<uint64>(unix_time + 11'644'473'600) * qorTicksPerSecond, true, info);
    qorString text;
    text.Printf("%u-%02u-%02u %02u:%02u:%02u %+d", info.year, info.month, info.day, info.hour, info.minute, info.second,
                info.utc_offset);
    return text.Text();
}

// The expected texts come from `date` of the GNU coreutils; the zones are given as rules, so that no database is
// needed.
TEST(convert_time_zones, changes_of_the_zone_take_effect_at_their_second) {
    const zone set("CET-1CEST,M3.5.0,M10.5.0/3");
    EXPECT_EQ(local(1616893199), "2021-03-28 01:59:59 +3600");
    EXPECT_EQ(local(1616893200), "2021-03-28 03:00:00 +7200");
    EXPECT_EQ(local(1635641999), "2021-10-31 02:59:59 +7200");
    EXPECT_EQ(local(1635642000), "2021-10-31 02:00:00 +3600");
    EXPECT_EQ(local(0), "1970-01-01 01:00:00 +3600");
}

TEST(convert_time_zones, zones_on_both_sides_of_utc) {
    {
        const zone set("XXX-5:45");
        EXPECT_EQ(local(-1), "1970-01-01 05:44:59 +20700");
        EXPECT_EQ(local(253402300799), "10000-01-01 05:44:59 +20700");
    }
    {
        const zone set("XXX3:30:15"); // the zone changes between two calls
        EXPECT_EQ(local(0), "1969-12-31 20:29:45 -12615");
        // Local times before the beginning of the count and after its end.
        EXPECT_EQ(local(-11'644'473'600), "1600-12-31 20:29:45 -12615");
    }
    {
        const zone set("XXX-24");
        EXPECT_EQ(local(-11'644'473'600 + 1'844'674'407'370), "60056-05-29 05:36:10 +86400");
    }
    {
        const zone set("UTC0");
        EXPECT_EQ(local(1616893199), "2021-03-28 00:59:59 +0");
    }
}

} // namespace
