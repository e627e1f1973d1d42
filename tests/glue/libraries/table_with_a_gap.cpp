// Has a table that lacks one operation of the client.
#include "made_up_table.h"

namespace {

struct table_with_a_gap : made_up_table {
    table_with_a_gap() noexcept : made_up_table([]() noexcept -> uint32 { return qor::glue::slot_count; }) {
        rows[offsetof(qor::glue::binding_table, qor_do_delete) / sizeof(made_up_row)] = nullptr;
    }
} s_table;

} // namespace

QOR_HAND_OUT(s_table)
