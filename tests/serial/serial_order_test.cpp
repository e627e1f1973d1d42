// The order of port names.
#include "serial/natural_order.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

TEST(serial_order, is_by_number_inside_a_name) {
    const std::vector<std::string> ordered = {"",
                                              "COM",
                                              "COM01",
                                              "COM1",
                                              "COM2",
                                              "COM10",
                                              "COM18446744073709551616",
                                              "COM18446744073709551617",
                                              "rfcomm0",
                                              "tty",
                                              "ttyACM0",
                                              "ttyS0",
                                              "ttyS1",
                                              "ttyS9",
                                              "ttyS10",
                                              "ttyS10a",
                                              "ttyUSB0",
                                              "ttyUSB2",
                                              "ttyUSB11",
                                              "tty\xc3\xa4"};
    std::vector<std::string> names = ordered;
    std::mt19937 random(1);
    for (int round = 0; round < 100; ++round) {
        std::shuffle(names.begin(), names.end(), random);
        std::sort(names.begin(), names.end(), qor::serial::comes_before);
        ASSERT_EQ(names, ordered);
    }
}

TEST(serial_order, of_a_name_and_itself_neither_comes_first) {
    for (const char* const name : {"", "COM1", "COM01", "0", "000"})
        EXPECT_FALSE(qor::serial::comes_before(name, name));
}
