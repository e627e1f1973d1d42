// Services of systemd, by the module qor-systemd.
#include "module/module.h"
#include "service/system_services.h"

bool qor::service::perform(qorServiceRequest request, const char* name, const qorServiceOptions& options,
                           qorServiceStatus& status) noexcept {
    void* made = nullptr;
    if (!module::create_object("qor-systemd", "IQORServiceRequests", "systemd", &made))
        return false;
    zetSmartPointer<IQORServiceRequests> requests;
    requests.AttachNew(static_cast<IQORServiceRequests*>(made));
    return requests->Perform(request, name, options, status);
}
