// Has a table that is one row shorter than the client's.
#include "made_up_table.h"

namespace {

made_up_table s_table([]() noexcept -> uint32 { return qor::glue::slot_count - 1; });

} // namespace

QOR_HAND_OUT(s_table)
