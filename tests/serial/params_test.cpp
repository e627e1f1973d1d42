// What a port is to be set to: the checks, and the comparison with what a driver took.
#include "serial/params.h"

#include "qor/qor.h"
#include "support/last_error.h"

#include <gtest/gtest.h>

namespace {

using qor::serial::compare;
using qor::serial::not_taken;
using qor::test::last_error;

qorSerialParams basics(uint32 rate, uint8 data_bits = 8, uint8 half_stop_bits = 2,
                       qorSerialParity parity = qorSerialParity::none) {
    qorSerialParams params;
    EXPECT_TRUE(qorSetParams_Basics(params, rate, data_bits, half_stop_bits, parity)) << last_error();
    return params;
}

void expect_invalid(bool accepted, const std::string& what) {
    EXPECT_FALSE(accepted) << what;
    EXPECT_NE(last_error().find(" was called with an invalid argument: " + what + "."), std::string::npos)
        << last_error();
}

std::string text(const not_taken& which) {
    if (which.parameter == 0)
        return "taken";
    qor::serial::report("tty", which);
    return last_error();
}

} // namespace

TEST(serial_params, begin_with_nothing) {
    qorSerialParams params;
    EXPECT_EQ(params.sets, 0u);
    ASSERT_TRUE(qorSetParams_Basics(params, 300, 7, 4, qorSerialParity::mark));
    ASSERT_TRUE(qorSetParams_FlowControl(params, true, true));
    ASSERT_TRUE(qorSetParams_Timeouts(params, {.read_total = 1, .read_gap = 2, .write_total = 3}));
    EXPECT_EQ(params.sets, qorSerialSetsBasics | qorSerialSetsFlowControl | qorSerialSetsTimeouts);
    EXPECT_EQ(qor::serial::short_form(params), "300 7M2");
    EXPECT_EQ(params.timeouts.write_total, 3u);
    qorResetParams(params);
    EXPECT_EQ(params.sets, 0u);
    EXPECT_EQ(params.bits_per_second, 0u);
    EXPECT_FALSE(params.rts_cts);
    EXPECT_EQ(params.timeouts.read_gap, qorSerialForever);
}

TEST(serial_params, every_form_of_characters) {
    for (unsigned data_bits = 0; data_bits < 12; ++data_bits)
        for (unsigned stop = 0; stop < 6; ++stop)
            for (unsigned parity = 0; parity < 7; ++parity) {
                const bool is_form = data_bits >= 5 && data_bits <= 8 && parity <= 4 &&
                                     (stop == 2 || (stop == 3 && data_bits == 5) || (stop == 4 && data_bits != 5));
                qorSerialParams params;
                EXPECT_EQ(qorSetParams_Basics(params, 9600, static_cast<uint8>(data_bits), static_cast<uint8>(stop),
                                              static_cast<qorSerialParity>(parity)),
                          is_form)
                    << data_bits << ' ' << stop << ' ' << parity;
                EXPECT_EQ(params.sets, is_form ? qorSerialSetsBasics : 0u);
            }
}

TEST(serial_params, say_what_is_wrong) {
    qorSerialParams params;
    expect_invalid(qorSetParams_Basics(params, 0), "0 bits per second");
    expect_invalid(qorSetParams_Basics(params, 9600, 9), "9 data bits");
    expect_invalid(qorSetParams_Basics(params, 9600, 8, 3), "3 half stop bits with 8 data bits");
    expect_invalid(qorSetParams_Basics(params, 9600, 5, 4), "4 half stop bits with 5 data bits");
    expect_invalid(qorSetParams_Basics(params, 9600, 8, 2, static_cast<qorSerialParity>(5)), "parity 5");
    expect_invalid(qorSetParams_RS485(params, {.enabled = true, .delay_after = 1001}), "a delay of more than a second");
    EXPECT_EQ(params.sets, 0u);
    // Both want RTS for themselves, whichever comes first.
    const std::string both = "an RS-485 bus with flow control by RTS and CTS";
    ASSERT_TRUE(qorSetParams_FlowControl(params, true, false));
    expect_invalid(qorSetParams_RS485(params, {.enabled = true}), both);
    qorResetParams(params);
    ASSERT_TRUE(qorSetParams_RS485(params, {.enabled = true}));
    expect_invalid(qorSetParams_FlowControl(params, true, false), both);
    EXPECT_TRUE(qorSetParams_FlowControl(params, false, true));
}

// A caller may fill in the structure without the operations.
TEST(serial_params, are_checked_again) {
    IQORSerialPort* port = nullptr;
    qorSerialParams params;
    params.sets = 16;
    expect_invalid(qorOpenSerialPortEx("no such port", params, qorSerialClosing::keep, &port),
                   "unknown groups of settings");
    params.sets = qorSerialSetsBasics;
    expect_invalid(qorOpenSerialPortEx("no such port", params, qorSerialClosing::keep, &port), "0 bits per second");
    params.sets = 0;
    expect_invalid(qorOpenSerialPortEx("no such port", params, static_cast<qorSerialClosing>(2), &port),
                   "an unknown kind of closing");
    EXPECT_FALSE(qorOpenSerialPortEx("no such port", params, qorSerialClosing::restore, &port));
    EXPECT_EQ(last_error(), "There is no serial port 'no such port'.");
    EXPECT_EQ(port, nullptr);
}

TEST(serial_params, what_a_driver_did_not_take) {
    const qorSerialSettings plain{9600, 8, 2, qorSerialParity::none, false, false};
    EXPECT_EQ(text(compare(basics(9600), plain)), "taken");
    EXPECT_EQ(text(compare(basics(9600, 7), plain)),
              "The serial port 'tty' was not set: its driver did not take the number of data bits. It was to be 7, and "
              "became 8.");
    EXPECT_EQ(text(compare(basics(9600, 8, 4), plain)),
              "The serial port 'tty' was not set: its driver did not take the number of stop bits. It was to be 2, and "
              "became 1.");
    EXPECT_EQ(text(compare(basics(9600, 8, 2, qorSerialParity::space), plain)),
              "The serial port 'tty' was not set: its driver did not take the parity. It was to be space, and became "
              "none.");
    qorSerialParams flow;
    ASSERT_TRUE(qorSetParams_FlowControl(flow, true, false));
    EXPECT_EQ(text(compare(flow, plain)), "The serial port 'tty' was not set: its driver did not take the flow control "
                                          "by RTS and CTS. It was to be on, and became off.");
    ASSERT_TRUE(qorSetParams_FlowControl(flow, false, true));
    EXPECT_EQ(text(compare(flow, plain)), "The serial port 'tty' was not set: its driver did not take the flow control "
                                          "by XON and XOFF. It was to be on, and became off.");
    // What was not asked for may be anything.
    EXPECT_EQ(text(compare(qorSerialParams{}, {0, 5, 3, qorSerialParity::odd, true, true})), "taken");
}

TEST(serial_params, a_rate_is_right_to_within_two_per_cent) {
    qorSerialSettings got{0, 8, 2, qorSerialParity::none, false, false};
    for (const uint32 rate : {50u, 100u, 9600u, 250000u, 4000000u, 4294967295u})
        for (const double factor : {0.0, 0.5, 0.979, 0.981, 1.0, 1.019, 1.021, 2.0}) {
            const double real = rate * factor;
            if (real > 4294967295.0)
                continue;
            got.bits_per_second = static_cast<uint32>(real);
            const double error = (static_cast<double>(got.bits_per_second) - rate) / rate;
            EXPECT_EQ(compare(basics(rate), got).parameter == 0, error >= -0.02 && error <= 0.02)
                << rate << ' ' << factor;
        }
}

TEST(serial_params, how_a_bus_is_driven) {
    const qorSerialRS485 wanted{.enabled = true, .delay_before = 3};
    EXPECT_EQ(compare(wanted, wanted).parameter, 0u);
    EXPECT_EQ(text(compare(wanted, {.enabled = true})),
              "The serial port 'tty' was not set: its driver did not take the RS-485 mode. It was to be RTS on, hears "
              "others, 3 ms, 0 ms, and became RTS on, hears others, 0 ms, 0 ms.");
    EXPECT_NE(compare(wanted, {}).parameter, 0u);
    // Nothing else counts where it is off.
    EXPECT_EQ(compare({.enabled = false, .delay_before = 3}, {.enabled = false}).parameter, 0u);
}
