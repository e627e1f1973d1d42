// path-list: the framework's named folders.
#include "qortool_app.h"

int qortool_app::func_pathlist(qorStringArray&) {
    const qorDebugSeq trace(m_debug_code, "func_pathlist");
    constexpr uint32 count = 30;
    fixed_fprintf(stdout, "Path definitions:\n\n");
    qorString tag;
    qorString path;
    for (uint32 number = 0; number < count; ++number) {
        const auto id = static_cast<qorFolderId>(number);
        if (qorGetFolderTagForId(id, tag) && qorGetFolderPath(id, path)) {
            fixed_fprintf(stdout, "    %-20s = %s\n", tag.Text(), path.Text());
        } else {
            fixed_fprintf(stderr, "FAIL on code %u - ", number);
            fputerr(stderr, true);
        }
    }
    fixed_fprintf(stdout, "\nPath list complete.\n");
    return 0;
}
