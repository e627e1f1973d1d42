// Ends a connection the hard way.
#pragma once

#include "channel/sockets.h"

namespace qor::test {

// The peer meets a reset, no orderly end.
void reset(sockets::socket& connection);

} // namespace qor::test
