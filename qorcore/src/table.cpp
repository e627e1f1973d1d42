// The table of entry points, made from slots.def, and the one symbol that libqor exports.
#include "qor/qor.h"

namespace {

constexpr qor::glue::binding_table table = {
#define QOR_SLOT(number, result, op, parameters, arguments) .op = &qor::glue::op,
#define QOR_RESERVED(number, op) .op = nullptr,
#define QOR_ROOM(first, count) .room_##first = {},
#include "qor/glue/slots.def"
#undef QOR_SLOT
#undef QOR_RESERVED
#undef QOR_ROOM
};

} // namespace

extern "C" const qor::glue::binding_table* glue_binding_point() noexcept {
    return &table;
}
