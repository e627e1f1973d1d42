// Inside the library: the seam to the system's manager of services.
#pragma once

#include "qor/glue/service_requests.h"
#include "qor/qor.h"

namespace qor::service {

// Carries out a request. Returns false and sets the last error on failure, except that a service which does not exist
// is no error for qorServiceRequest::exists.
bool perform(qorServiceRequest request, const char* name, const qorServiceOptions& options,
             qorServiceStatus& status) noexcept;

} // namespace qor::service
