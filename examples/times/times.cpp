// Times: clocks, calendar time, durations and timecodes. It prints:
//
//     1970-01-01T00:00:00 is a Thursday
//     a day later: 1970-01-02
//     2024-02-29 is day 060 of its year
//     frame 1800 at 29.97: 00:01:00:02
//     slept for at least 10 ms: yes
#include "qor/qor.h"

int main() {
    constexpr uint64 begin_of_1970 = 116444736000000000; // ticks since 1601
    constexpr const char* weekdays[] = {"Monday", "Tuesday", "Wednesday", "Thursday", "Friday", "Saturday", "Sunday"};
    qorTimeInfo info;
    qorConvertTime(begin_of_1970, false, info);
    qorString text;
    qorFormatTime(text, "%FT%T", info);
    fixed_fprintf(stdout, "%s is a %s\n", text.Text(), weekdays[info.weekday]);

    qorFormatTime(text, "%F", begin_of_1970 + 24 * 60 * 60 * qorTicksPerSecond, false);
    fixed_fprintf(stdout, "a day later: %s\n", text.Text());

    qorTimeInfo leap_day{};
    leap_day.year = 2024;
    leap_day.month = 2;
    leap_day.day = 29;
    qorFormatTime(text, "%F is day %j of its year", leap_day);
    text.Put(stdout, true);

    // Drop-frame counting skips two frame numbers of this minute.
    qorTimecode timecode;
    timecode.SetFromFrameCount(qorRational(30000, 1001), 1800);
    timecode.GetVideoString(text);
    fixed_fprintf(stdout, "frame 1800 at 29.97: %s\n", text.Text());

    const uint64 before = qorGetTickCounter();
    qorSleep(10);
    const bool is_long_enough = qorGetTickCounter() - before >= qorTicksPerSecond / 100;
    fixed_fprintf(stdout, "slept for at least 10 ms: %s\n", is_long_enough ? "yes" : "no");
}
