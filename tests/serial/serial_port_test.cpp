// Serial ports on every host: names that are not ports.
#include "qor/qor.h"

#include <gtest/gtest.h>

namespace {

uint32 last_number() {
    qorString text;
    return qorGetLastError(text);
}

} // namespace

TEST(serial_port, names_that_no_port_has) {
    for (const char* const name : {"no such port", "COM99999", "\xff", "%s%n"}) {
        qorString location("as it was");
        EXPECT_FALSE(qorGetSerialPortLocation(name, location)) << name;
        EXPECT_EQ(last_number(), qorError_no_serial_port);
        EXPECT_STREQ(location, "as it was");
        qorClearLastError();
        IQORSerialPort* port = nullptr;
        EXPECT_FALSE(qorOpenSerialPort(name, &port)) << name;
        EXPECT_EQ(last_number(), qorError_no_serial_port);
        EXPECT_EQ(port, nullptr);
    }
}

TEST(serial_port, no_name_is_no_port) {
    for (const char* const name : {"", static_cast<const char*>(nullptr)}) {
        qorString location;
        EXPECT_FALSE(qorGetSerialPortLocation(name, location));
        IQORSerialPort* port = nullptr;
        EXPECT_FALSE(qorOpenSerialPort(name, &port));
        EXPECT_EQ(last_number(), qorError_no_serial_port);
    }
}

TEST(serial_port, all_that_are_listed_have_a_location_to_ask_for) {
    qorStringArray names;
    names.Append("what was there before");
    ASSERT_TRUE(qorEnumSerialPorts(names));
    EXPECT_FALSE(names.IsPresent("what was there before"));
    for (uint32 i = 0; i < names.GetCount(); ++i) {
        qorString location;
        EXPECT_TRUE(qorGetSerialPortLocation(names[i], location)) << names[i];
    }
}
