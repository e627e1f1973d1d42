// timer-check, dow, tztest: clocks, weekdays and local time.
#include "action_arguments.h"
#include "message_names.h"
#include "qortool_app.h"

#include <cstdlib>

namespace message = qor::messages::tool;

namespace {

constexpr const char* s_day_names[] = {
    "Monday", "Tuesday", "Wednesday", "Thursday", "Friday", "Saturday", "Sunday",
};

// Splits "28/3/2021". Returns false if a separator is missing or nothing precedes one. Numbers are truncated to the
// size of their field; the framework checks the result.
bool split_date(const char* text, qorTimeInfo& date) {
    qorString rest(text);
    qorString day;
    qorString month;
    const int32 first = rest.FindByte('/');
    if (first < 1)
        return false;
    rest.GetLeft(day, static_cast<uint32>(first));
    rest.SetMid(static_cast<uint32>(first) + 1, -1);
    const int32 second = rest.FindByte('/');
    if (second <= 0)
        return false;
    rest.GetLeft(month, static_cast<uint32>(second));
    rest.SetMid(static_cast<uint32>(second) + 1, -1);
    date.day = static_cast<uint8>(std::atoi(day));
    date.month = static_cast<uint8>(std::atoi(month));
    date.year = static_cast<uint16>(std::atoi(rest));
    return true;
}

} // namespace

int qortool_app::func_dow(qorStringArray& args) {
    const qorDebugSeq trace(m_debug_code, "func_dow");
    if (!check_arguments(args, "dow", 1))
        return 1;
    qorTimeInfo date{};
    const int32 weekday = split_date(args[0], date) ? qorGetDayOfWeek(date) : -1;
    if (weekday < 0) {
        fputmsg(stderr, message::catalog, message::bad_date, true);
        return 1;
    }
    fixed_fprintf(stdout, "Day: %s\n", s_day_names[weekday]);
    return 0;
}

// A person compares the lines. The time is shortly before summer time begins in much of Europe.
int qortool_app::func_tztest(qorStringArray&) {
    const qorDebugSeq trace(m_debug_code, "func_tztest");
    constexpr char format[] = "%d/%m/%y @ %H:%M:%S";
    qorTimeInfo info{};
    info.year = 2021;
    info.month = 3;
    info.day = 28;
    info.minute = 30;
    const uint64 clock = qorConvertLocalTimeInfo(info);
    qorString text;
    qorFormatTime(text, format, info);
    fixed_fprintf(stdout, "Orig: %s\n", text.Text());
    qorFormatTime(text, format, clock, false);
    fixed_fprintf(stdout, "Conv UTC: %s\n", text.Text());
    qorFormatTime(text, format, clock, true);
    fixed_fprintf(stdout, "Conv Local: %s\n", text.Text());
    return 0;
}

int qortool_app::func_timer_check(qorStringArray& args) {
    const qorDebugSeq trace(m_debug_code, "func_timer_check");
    if (!m_quiet)
        fputmsg(stdout, message::catalog, message::timer_check_heading, true);
    if (!check_arguments(args, "timer-check", 0))
        return 1;
    const uint64 start = qorGetTickCounter();
    const uint64 system_ahead = qorGetSystemTime() - start;
    fixed_fprintf(stderr, "start=%llu offset=%llu\n", static_cast<unsigned long long>(start),
                  static_cast<unsigned long long>(system_ahead));
    for (uint64 previous = start;;) {
        qorSleep(1000);
        const uint64 tick = qorGetTickCounter();
        const uint64 now = qorGetSystemTime();
        const double drift = (static_cast<double>(tick) - static_cast<double>(now - system_ahead)) / 1e7;
        const double pass = static_cast<double>(tick - previous) / 1e7;
        previous = tick;
        fixed_fprintf(stderr, "val=%5llu.%07llu    delta=%.3f     diff=%f\n",
                      static_cast<unsigned long long>(tick / qorTicksPerSecond),
                      static_cast<unsigned long long>(tick % qorTicksPerSecond), pass, drift);
    }
}
