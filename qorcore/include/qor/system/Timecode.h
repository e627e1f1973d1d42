// Frame rates and timecodes.
#pragma once

#include "qor/system/Stream.h"
#include "qor/system/String.h"
#include "qor/system/Time.h"

#include <algorithm>

// A fraction, neither reduced nor checked. Copied by value. Stream form: the numerator as signed 32-bit, the
// denominator as unsigned 32-bit. A failed Read may have changed the numerator.
class qorRational {
public:
    qorRational() noexcept = default;
    // Numerator and denominator.
    qorRational(int32 n, uint32 d) noexcept : numerator(n), denominator(d) {}

    // Like the constructor with the same arguments.
    void Set(int32 n, uint32 d) noexcept { *this = {n, d}; }

    // The quotient, or 0.0 if the denominator is 0.
    double fp_val() const noexcept { return denominator != 0 ? static_cast<double>(numerator) / denominator : 0.0; }

    // Compares the fields: 1/2 does not equal 2/4.
    bool operator==(const qorRational&) const noexcept = default;

    // The stream form. Return false if the sink or source failed; the last error says why.
    bool Write(IQORDataSink* sink) const noexcept {
        return sink->WriteInt32(numerator) && sink->WriteUint32(denominator);
    }
    [[nodiscard]] bool Read(IQORDataSource* source) noexcept {
        return source->ReadInt32(numerator) && source->ReadUint32(denominator);
    }

    // The fraction; nothing reduces or checks it.
    int32 numerator = 0;
    uint32 denominator = 0;
};

// A time of day, or a position in a recording, in hours, minutes, seconds and frames. The fields are not limited to
// their usual ranges. Copied by value. Stream form: the fields in their order, each an unsigned 16-bit number. A failed
// Read may have changed some fields.
//
// A rate is in frames per second. Operations that compute with a rate report one with a denominator of 0 or a numerator
// that is not positive.
class qorTimecode {
public:
    qorTimecode() noexcept = default;
    // Hours, minutes, seconds and frames.
    qorTimecode(uint16 h, uint16 m, uint16 s, uint16 f) noexcept : hours(h), minutes(m), seconds(s), frames(f) {}

    // Like the constructor with the same arguments.
    void Set(uint16 h, uint16 m, uint16 s, uint16 f) noexcept { *this = {h, m, s, f}; }

    bool operator==(const qorTimecode&) const noexcept = default;

    // All fields in one number, with the hours in the highest 16 bits.
    uint64 pack_u64() const noexcept {
        return uint64{hours} << 48 | uint64{minutes} << 32 | uint64{seconds} << 16 | frames;
    }
    void unpack_u64(uint64 packed) noexcept {
        const auto field = [packed](unsigned shift) { return static_cast<uint16>(packed >> shift); };
        Set(field(48), field(32), field(16), field(0));
    }

    // "hh:mm:ss:ff"
    void GetVideoString(qorString& out) const noexcept { print(out, 2); }

    // "hh:mm:ss.fff"; the fourth field is taken as milliseconds.
    void GetAudioString(qorString& out) const noexcept {
        out.Printf("%02u:%02u:%02u.%03u", hours, minutes, seconds, frames);
    }

    // "hh:mm:ss:ff". The frames have as many digits as the highest frame number at the rate, at most three. A rate of 0
    // has no highest frame number and yields ten digits.
    void GetString(uint32 fps, qorString& out) const noexcept { print(out, digits((std::min)(fps, 1000u) - 1)); }

    // The same; the highest frame number is the rate minus one half, truncated. A denominator of 0 yields one digit, a
    // negative number ten.
    void GetString(const qorRational& rate, qorString& out) const noexcept {
        if (rate.fp_val() > 1000.0)
            return GetString(1000, out);
        const double highest = rate.denominator != 0 ? rate.fp_val() - 0.5 : 0.0;
        print(out, digits(static_cast<uint32>(static_cast<int64>(highest))));
    }

    // Frame counting. The number of frames per second is the rate rounded to the nearest integer, halves up, and at
    // least 1. At 30000/1001 (60000/1001) frames per second, drop-frame counting skips the first two (four) frame
    // numbers of each minute, except every tenth minute, and so stays in step with the clock; this is SMPTE ST 12-1. At
    // other rates, `drop_frame` has no effect. Equal rates count alike, whatever their fields: 60000/2002 is
    // 30000/1001.
    //
    // Sets the timecode of the frame with this number; frame 0 is 00:00:00:00. Hours are reduced to their low 16 bits,
    // and so are frames, which only matters for rates above 65536. A reported rate yields 00:00:00:00.
    void SetFromFrameCount(const qorRational& rate, bool drop_frame, uint64 count) noexcept {
        qor::glue::qorTimecode_SetFromFrameCount_drop(this, rate, drop_frame, count);
    }
    // With drop-frame counting, if the rate has it.
    void SetFromFrameCount(const qorRational& rate, uint64 count) noexcept { SetFromFrameCount(rate, true, count); }

    // Returns the number of the frame with this timecode: the inverse of SetFromFrameCount, for every count whose hours
    // and frames fit. Fields beyond their ranges carry over: 00:00:61:00 means 00:01:01:00. A frame number that
    // drop-frame counting skips counts as the first of its minute. A reported rate yields 0.
    uint64 GetFrameCount(const qorRational& rate, bool drop_frame) const noexcept {
        return qor::glue::qorTimecode_GetFrameCount(this, rate, drop_frame);
    }

    // Sets the time of day of a clock (qor/system/Time.h), in UTC or in local time, and the frame within its second, at
    // a rate of at most 1000 frames per second. A reported rate yields 00:00:00:00.
    void SetFromClock(const qorRational& rate, bool local, uint64 clock) noexcept {
        const qorRational used = rate.fp_val() > 1000.0 ? qorRational(1000, 1) : rate;
        *this = {};
        if (used.denominator == 0 || used.numerator <= 0) {
            qor::glue::assert_failed("INVALID FRAME RATE",
                                     "void qorTimecode::SetFromClock(const qorRational&, bool, uint64)",
                                     "qorcore/include/qor/system/Timecode", 128);
            return;
        }
        qorTimeInfo info;
        qorConvertTime(clock, local, info);
        const uint64 frame =
            clock % qorTicksPerSecond * static_cast<uint32>(used.numerator) / (used.denominator * qorTicksPerSecond);
        Set(info.hour, info.minute, info.second, static_cast<uint16>(frame));
    }

    // The stream form. Return false if the sink or source failed; the last error says why.
    bool Write(IQORDataSink* sink) const noexcept {
        return sink->WriteUint16(hours) && sink->WriteUint16(minutes) && sink->WriteUint16(seconds) &&
               sink->WriteUint16(frames);
    }
    [[nodiscard]] bool Read(IQORDataSource* source) noexcept {
        return source->ReadUint16(hours) && source->ReadUint16(minutes) && source->ReadUint16(seconds) &&
               source->ReadUint16(frames);
    }

    // The fields; nothing limits them to their usual ranges.
    uint16 hours = 0;
    uint16 minutes = 0;
    uint16 seconds = 0;
    uint16 frames = 0;

private:
    static int digits(uint32 number) noexcept {
        int count = 1;
        for (; number >= 10; number /= 10)
            ++count;
        return count;
    }

    void print(qorString& out, int frame_digits) const noexcept {
        out.Printf("%02u:%02u:%02u:%0*u", hours, minutes, seconds, frame_digits, frames);
    }
};
