// sysinfo: a report on the host.
#include "action_arguments.h"
#include "message_names.h"
#include "qortool_app.h"

namespace message = qor::messages::tool;

namespace {

#define QOR_ACTION_OPTION(action, name) constexpr char action##_option[] = name;
#include "command_line.def"

double mebibytes(uint64 bytes) { return static_cast<double>(bytes) * 9.5367431640625e-07; }

} // namespace

int qortool_app::func_sysinfo(qorStringArray& args) {
    const qorDebugSeq trace(m_debug_code, "func_sysinfo");
    fputmsg(stdout, message::catalog, message::sysinfo_heading, true);
    const action_arguments arguments(args, 0, sysinfo_option);
    if (!arguments.accept("sysinfo"))
        return 1;

    zetSmartPointer<IQORSystemInfo> info;
    create_IQORSystemInfo(info.Out());
    qorString text;
    info->GetPlatformString(text);
    fixed_fprintf(stdout, "Platform string:             %s\n", text.Text());
    if (info->GetEnhancedPlatformString(text))
        fixed_fprintf(stdout, "Enhanced platform string:    %s\n", text.Text());
    info->GetSystemType(text);
    fixed_fprintf(stdout, "System Type:                 %s\n", text.Text());
    info->GetSystemDescription(text);
    fixed_fprintf(stdout, "System Description:          %s\n", text.Text());
    info->GetSystemVersion(text);
    fixed_fprintf(stdout, "System Version:              %s\n", text.Text());
    info->GetCPUType(text);
    fixed_fprintf(stdout, "CPU Type:                    %s\n", text.Text());
    if (info->GetCPUTypeExtended(text))
        fixed_fprintf(stdout, "CPU Type (extended):         %s\n", text.Text());
    fixed_fprintf(stdout, "Logical CPU count:           %u\n", info->GetLogicalCPUCount());
    fixed_fprintf(stdout, info->IsVirtualMachine() ? "Host is a virtual machine\n" : "Host is bare metal\n");
    qorMemoryInfo memory{};
    info->GetMemoryInfo(memory);
    fixed_fprintf(stdout, "Memory: Total:               %.2f MB\n", mebibytes(memory.total));
    fixed_fprintf(stdout, "Memory: Used:                %.2f MB\n", mebibytes(memory.used));
    fixed_fprintf(stdout, "Memory: Free:                %.2f MB\n", mebibytes(memory.free));
    fixed_fprintf(stdout, "\n");

    fixed_fprintf(stdout, "Active catalog languages:\n");
    qorStringArray languages;
    qorGetActiveCatalogLanguages(languages);
    for (uint32 i = 0; i < languages.GetCount(); ++i)
        fixed_fprintf(stdout, "%s\n", languages[i]);
    fixed_fprintf(stdout, "\n");
    fixed_fprintf(stdout, "Current timezone offset = %d\n", qorGetTimeZoneOffset());
    if (arguments.has_option()) {
        // The contract fixes these sizes for 64-bit targets.
        fixed_fprintf(stdout, "\n");
        fixed_fprintf(stdout, "sizeof(qorAtomic)        = %u\n", 4u);
        fixed_fprintf(stdout, "sizeof(qorFastMutex)     = %u\n", 8u);
        fixed_fprintf(stdout, "sizeof(qorComponent)     = %u\n", 16u);
    }
    fixed_fprintf(stdout, "\n");
    return 0;
}
