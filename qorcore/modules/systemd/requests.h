// Inside the module qor-systemd: what is asked of the manager.
#pragma once

#include "qor/glue/service_requests.h"

namespace systemd {

// Like IQORServiceRequests::Perform, but may throw std::bad_alloc.
bool perform(qorServiceRequest request, const char* name, const qorServiceOptions& options, qorServiceStatus& status);

} // namespace systemd
