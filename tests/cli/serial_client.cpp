// serial_client PORT TEXT [RATE]: sends a text through a port, then prints the port's settings and the answer, as many
// bytes as it sent. With a rate, it sets the port first.
#include "qor/qor.h"

#include <cstdlib>
#include <cstring>

namespace {

constexpr uint32 milliseconds = 60000;

bool talk(IQORSerialPort& port, const char* text) {
    qorSerialSettings settings{};
    if (!port.GetSettings(settings))
        return false;
    fixed_fprintf(stdout, "%u bits per second, %u data bits, %u half stop bits, parity %u\n", settings.bits_per_second,
                  unsigned{settings.data_bits}, unsigned{settings.half_stop_bits},
                  static_cast<unsigned>(settings.parity));
    uint32 count = 0;
    const uint32 length = static_cast<uint32>(std::strlen(text));
    if (!port.Discard(true, true) || !port.Write(text, length, milliseconds, count) || !port.Flush())
        return false;
    qorString answer;
    while (answer.Length() < length) {
        char part[64];
        if (!port.Read(part, sizeof part, milliseconds, count))
            return false;
        if (count == 0)
            break;
        answer.Append(part, static_cast<int32>(count));
    }
    uint32 received = 0;
    uint32 unsent = 0;
    if (!port.GetWaiting(received, unsent))
        return false;
    fixed_fprintf(stdout, "%u sent, '%s' came, %u wait\n", length, answer.Text(), received + unsent);
    // No more bytes come, which is not a failure.
    return port.Read(&count, 1, 1, count) && count == 0;
}

bool open_port(const char* name, const char* rate, IQORSerialPort** port) {
    if (rate == nullptr)
        return qorOpenSerialPort(name, port);
    qorSerialParams params;
    return qorSetParams_Basics(params, static_cast<uint32>(std::atoi(rate)), 8, 4) &&
           qorSetParams_FlowControl(params, false, true) &&
           qorOpenSerialPortEx(name, params, qorSerialClosing::keep, port);
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 3 || argc > 4)
        return 2;
    zetSmartPointer<IQORSerialPort> port;
    if (open_port(argv[1], argv[3], port.Out()) && talk(**port, argv[2]))
        return 0;
    fputerr(stderr, true);
    return 1;
}
