// list-serial and ttyinfo: the host's serial ports.
#include "action_arguments.h"
#include "failure.h"
#include "qortool_app.h"

int qortool_app::func_list_serial(qorStringArray& args) {
    const qorDebugSeq trace(m_debug_code, "func_list_serial");
    if (!check_arguments(args, "list-serial", 0))
        return 1;
    fixed_fprintf(stdout, "Getting ports...\n");
    qorStringArray names;
    if (!qorEnumSerialPorts(names))
        return report_failure("FAILED to enumerate serial ports - ");
    if (names.IsEmpty()) {
        fixed_fprintf(stdout, "No serial ports found\n");
        return 0;
    }
    fixed_fprintf(stdout, "\nPorts found:\n\n");
    for (uint32 i = 0; i < names.GetCount(); ++i) {
        qorString location;
        qorGetSerialPortLocation(names[i], location);
        fixed_fprintf(stdout, "%-30s  %s\n", names[i], location.Text());
    }
    fixed_fprintf(stdout, "\nDone, found %u ports\n", names.GetCount());
    return 0;
}

int qortool_app::func_ttyinfo(qorStringArray& args) {
    if (!check_arguments(args, "ttyinfo", 1))
        return 1;
    zetSmartPointer<IQORSerialPort> port;
    if (!qorOpenSerialPort(args[0], port.Out()))
        return report_failure("FAILED to open serial port %s\n", args[0]);
    qorString text;
    port->GetPortName(text);
    fixed_fprintf(stdout, "Port name = '%s'\n", text.Text());
    port->GetLocation(text);
    fixed_fprintf(stdout, "Location = '%s'\n", text.Text());
    return 0;
}
