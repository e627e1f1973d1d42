// Converts times; each line of input gives a line of output:
//
//     zone NAME                        sets TZ; prints whether the last error was set
//     utc SECOND                       second of 1970: the local time's offset from UTC
//     local YEAR MONTH DAY H M S       the second of 1970 of this local time
#include "qor/qor.h"

#include <cstdlib>
#include <iostream>
#include <string>

namespace {

constexpr int64 seconds_to_1970 = 11'644'473'600;

} // namespace

int main() {
    std::ios::sync_with_stdio(false);
    for (std::string what; std::cin >> what;) {
        if (what == "zone") {
            std::string name;
            std::cin >> name;
            setenv("TZ", name.c_str(), 1);
            qorClearLastError();
            qorGetTimeZoneOffset();
            qorString text;
            std::cout << qorGetLastError(text) << '\n';
        } else if (what == "utc") {
            int64 second = 0;
            std::cin >> second;
            qorTimeInfo info;
            qorConvertTime(static_cast<uint64>(second + seconds_to_1970) * qorTicksPerSecond, true, info);
            std::cout << info.utc_offset << '\n';
        } else {
            unsigned fields[6] = {};
            for (unsigned& field : fields)
                std::cin >> field;
            qorTimeInfo info{};
            info.year = static_cast<uint16>(fields[0]);
            info.month = static_cast<uint8>(fields[1]);
            info.day = static_cast<uint8>(fields[2]);
            info.hour = static_cast<uint8>(fields[3]);
            info.minute = static_cast<uint8>(fields[4]);
            info.second = static_cast<uint8>(fields[5]);
            const uint64 clock = qorConvertLocalTimeInfo(info);
            std::cout << static_cast<int64>(clock / qorTicksPerSecond) - seconds_to_1970 << '\n';
        }
    }
    return std::cout.flush() ? 0 : 1;
}
