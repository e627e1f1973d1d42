// Ends a connection by a reset.
#pragma once

#include "channel/sockets.h"

namespace qor::test {

// The peer receives a reset instead of an orderly end.
void reset(sockets::socket& connection);

} // namespace qor::test
