#include "glue/own_table.h"

#include "qor/qor.h"

constinit const qor::glue::binding_table qor::glue::own_table = {
#define QOR_SLOT(number, result, op, parameters, arguments) .op = &qor::glue::op,
#define QOR_RESERVED(number, op) .op = nullptr,
#define QOR_FREE(first, count) .free_##first = {},
#include "qor/glue/slots.def"
#undef QOR_SLOT
#undef QOR_RESERVED
#undef QOR_FREE
};

uint32 qor::glue::qorGetTableLength() noexcept { return slot_count; }
const char* qor::glue::qorGetLibraryVersion() noexcept { return QOR_VERSION; }
