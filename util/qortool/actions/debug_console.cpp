// debug-control: the console for another process's trace codes.
#include "console/debug_control.h"
#include "qortool_app.h"

int qortool_app::func_debug_control(qorStringArray& args) {
    const qorDebugSeq trace(m_debug_code, "func_debug_control");
    zetSmartPointer<debug_control> console;
    console.AttachNew(new ("util/qortool/main", 1196) debug_control(m_quiet));
    return console->Execute(args) ? 0 : 1;
}
