// Frame counts and timecodes.
#include "qor/qor.h"

#include <algorithm>

namespace {

// The numbering of frames at a frame rate.
struct counting {
    counting(const qorRational& rate, bool drop_frame) noexcept
        : per_second(std::max<uint64>(rounded(rate), 1)), dropped(drop_frame ? dropped_at(rate) : 0),
          per_minute(60 * per_second - dropped), per_ten_minutes(600 * per_second - 9 * dropped) {}

    uint64 per_second; // frame numbers
    uint64 dropped;    // frame numbers that each minute skips, except every tenth minute
    uint64 per_minute; // frames in a minute that skips numbers
    uint64 per_ten_minutes;

private:
    static uint64 rounded(const qorRational& rate) noexcept {
        return (2 * uint64{static_cast<uint32>(rate.numerator)} + rate.denominator) / (2 * uint64{rate.denominator});
    }

    static bool equals(const qorRational& rate, uint64 numerator, uint64 denominator) noexcept {
        return uint64{static_cast<uint32>(rate.numerator)} * denominator == numerator * rate.denominator;
    }

    static uint64 dropped_at(const qorRational& rate) noexcept {
        return equals(rate, 30000, 1001) ? 2 : equals(rate, 60000, 1001) ? 4 : 0;
    }
};

bool is_valid(const qorRational& rate, const char* function, int line) noexcept {
    if (rate.denominator != 0 && rate.numerator > 0)
        return true;
    qor::glue::qorAssertFailed("INVALID FRAME RATE", function, "qorcore/src/time/timecode", line);
    return false;
}

} // namespace

void qor::glue::qorTimecode_SetFromFrameCount(qorTimecode* self, const qorRational& rate, uint64 count) noexcept {
    qorTimecode_SetFromFrameCount_drop(self, rate, true, count);
}

void qor::glue::qorTimecode_SetFromFrameCount_drop(qorTimecode* self, const qorRational& rate, bool drop_frame,
                                                   uint64 count) noexcept {
    *self = {};
    if (!is_valid(rate, "void qorTimecode::SetFromFrameCount(const qorRational&, bool, uint64)", 50))
        return;
    const counting by(rate, drop_frame);
    uint64 minute = count / by.per_ten_minutes * 10;
    uint64 number = count % by.per_ten_minutes; // at first within ten minutes, finally within its minute
    // The first of ten minutes skips no numbers; each other minute begins after the numbers that it skips.
    if (const uint64 first_minute = 60 * by.per_second; number >= first_minute) {
        minute += 1 + (number - first_minute) / by.per_minute;
        number = (number - first_minute) % by.per_minute + by.dropped;
    }
    self->Set(static_cast<uint16>(minute / 60), static_cast<uint16>(minute % 60),
              static_cast<uint16>(number / by.per_second), static_cast<uint16>(number % by.per_second));
}

uint64 qor::glue::qorTimecode_GetFrameCount(const qorTimecode* self, const qorRational& rate,
                                            bool drop_frame) noexcept {
    if (!is_valid(rate, "uint64 qorTimecode::GetFrameCount(const qorRational&, bool) const", 68))
        return 0;
    const counting by(rate, drop_frame);
    const uint64 second = self->hours * 3600ull + self->minutes * 60ull + self->seconds + self->frames / by.per_second;
    const uint64 minute = second / 60;
    uint64 number = second % 60 * by.per_second + self->frames % by.per_second;
    if (minute % 10 == 0)
        return minute / 10 * by.per_ten_minutes + number;
    // A skipped number counts as the first number after it.
    number = std::max(number, by.dropped);
    return minute / 10 * by.per_ten_minutes + 60 * by.per_second + (minute % 10 - 1) * by.per_minute + number -
           by.dropped;
}
