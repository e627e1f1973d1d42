// Prints the framework's weekdays for every day and month of the years FIRST to LAST, including impossible dates: a
// line a year with 12 times 31 weekdays, "-" for an impossible date.
//
//     weekdays FIRST LAST
#include "qor/qor.h"

#include <cstdlib>
#include <string>

int main(int argc, char** argv) {
    if (argc != 3)
        return 2;
    const int last = std::atoi(argv[2]);
    for (int year = std::atoi(argv[1]); year <= last; ++year) {
        std::string line;
        for (uint8 month = 1; month <= 12; ++month)
            for (uint8 day = 1; day <= 31; ++day) {
                // Fields that are not part of the date are ignored.
                const qorTimeInfo info{static_cast<uint16>(year), month, day, 255, 255, 255, 255, ~0u, -1};
                const int32 weekday = qorGetDayOfWeek(info);
                line += weekday < 0 ? '-' : static_cast<char>('0' + weekday);
            }
        if (std::puts(line.c_str()) < 0)
            return 1;
    }
    return 0;
}
