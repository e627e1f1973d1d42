// Ends a connection the hard way.
#pragma once

#include "channel/net.h"

namespace qor::test {

// The peer meets a reset, no orderly end.
void reset(net::socket& connection);

} // namespace qor::test
