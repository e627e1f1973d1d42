// Between libqor and its module for services. Clients do not need it.
#pragma once

#include "qor/system/Interface.h"
#include "qor/system/Service.h"

enum class qorServiceRequest : uint32 { exists, start, stop };

// Asks the manager of services.
class IQORServiceRequests : public IQORInterface {
public:
    // Like qorServiceExists, qorServiceStart and qorServiceStop. `name` is not null.
    virtual bool Perform(qorServiceRequest request, const char* name, const qorServiceOptions& options,
                         qorServiceStatus& status) noexcept = 0;

protected:
    ~IQORServiceRequests() = default;
};
