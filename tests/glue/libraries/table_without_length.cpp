// Has a table of an older format without a row for its length.
#include "made_up_table.h"

namespace {

made_up_table s_table(nullptr);

} // namespace

QOR_HAND_OUT(s_table)
