// Operators new and delete, as the C++ library of mingw-w64 names them. Those of Visual C++ have no names in a file.
#pragma once

namespace qor::record {

inline constexpr const char* operator_names[] = {
    "_Znwy",
    "_ZnwyRKSt9nothrow_t",
    "_ZnwySt11align_val_t",
    "_ZnwySt11align_val_tRKSt9nothrow_t",
    "_Znay",
    "_ZnayRKSt9nothrow_t",
    "_ZnaySt11align_val_t",
    "_ZnaySt11align_val_tRKSt9nothrow_t",
    "_ZdlPv",
    "_ZdlPvy",
    "_ZdlPvRKSt9nothrow_t",
    "_ZdlPvSt11align_val_t",
    "_ZdlPvySt11align_val_t",
    "_ZdlPvSt11align_val_tRKSt9nothrow_t",
    "_ZdaPv",
    "_ZdaPvy",
    "_ZdaPvRKSt9nothrow_t",
    "_ZdaPvSt11align_val_t",
    "_ZdaPvySt11align_val_t",
    "_ZdaPvSt11align_val_tRKSt9nothrow_t",
};

} // namespace qor::record
