// The module qor-systemd: services, asked for over D-Bus.
#include "qor/glue/module.h"

#include "common/guarded.h"
#include "common/hand_out.h"
#include "qor/system/template/Object.h"
#include "requests.h"

#include <cstring>

namespace {

constexpr char source[] = "qorcore/modules/systemd/module";

class service_requests final : public qor::object<IQORServiceRequests> {
public:
    service_requests() noexcept : object("qorcore.systemd.requests", "IQORServiceRequests") {}

    bool Perform(qorServiceRequest request, const char* name, const qorServiceOptions& options,
                 qorServiceStatus& status) noexcept override {
        return qor::modules::guarded([&] { return systemd::perform(request, name, options, status); });
    }
};

bool create_object(const char* interface_name, const char* kind, void** out) noexcept {
    if (std::strcmp(interface_name, "IQORServiceRequests") != 0 || std::strcmp(kind, "systemd") != 0) {
        qorSetLastError(qorError_not_supported);
        return false;
    }
    return qor::modules::hand_out<IQORServiceRequests>(
        [](IQORServiceRequests** made) { return qor::modules::make<service_requests>(source, __LINE__, made); }, out);
}

} // namespace

QOR_OWN_MODULE("qor-systemd", &create_object, nullptr)
