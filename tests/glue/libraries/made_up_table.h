// Tables of libraries that are not libqor. A client must refuse each of them before it calls any row but the first.
// The second is the version, for qor-check.
#pragma once

#include "qor/glue/binding.h"

#include <cstdlib>

using made_up_row = qor::glue::unwritten;

// Laid out like the client's own table, row by row.
struct made_up_table {
    made_up_row rows[qor::glue::slot_count];

    explicit made_up_table(uint32 (*length)() noexcept) noexcept {
        for (made_up_row& row : rows)
            row = [] { std::abort(); };
        rows[0] = reinterpret_cast<made_up_row>(length);
        rows[1] =
            reinterpret_cast<made_up_row>(static_cast<const char* (*)() noexcept>([]() noexcept { return "3.2.1"; }));
    }
};

#define QOR_HAND_OUT(table)                                                                                            \
    extern "C" [[gnu::visibility("default")]] const void* glue_binding_point() { return (table).rows; }
