// Inside the module qor-systemd: the end of a service's log.
#pragma once

#include "unit.h"

#include <vector>

namespace systemd {

// Returns the last lines that the service and, about it, the manager have written since its last start. At most `count`
// lines; none if the caller may not read the journal, or it cannot be read.
std::vector<std::string> last_lines(qorServiceManager manager, const unit& of, uint32 count, time_limit limit);

} // namespace systemd
