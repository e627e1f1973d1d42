// Services: the operations, which are alike on all systems.
#include "error/error.h"
#include "service/system_services.h"

namespace {

// `operation` is that of the caller.
bool perform(const char* operation, qorServiceRequest request, const char* name, const qorServiceOptions& options,
             qorServiceStatus* status) noexcept {
    const char* wrong = nullptr;
    if (name == nullptr)
        wrong = "name";
    else if (options.manager > qorServiceManager::user)
        wrong = "manager";
    else if (options.lines > qorMaxServiceLines)
        wrong = "lines";
    if (wrong != nullptr) {
        qor::error::set(qorError_invalid_argument, {operation, wrong});
        return false;
    }
    qorServiceStatus unwanted;
    qorServiceStatus& out = status != nullptr ? *status : unwanted;
    out = {};
    return qor::service::perform(request, name, options, out);
}

} // namespace

bool qor::glue::qorServiceExists(const char* name, const qorServiceOptions& options,
                                 qorServiceStatus* status) noexcept {
    return perform("qorServiceExists", qorServiceRequest::exists, name, options, status);
}

bool qor::glue::qorServiceStart(const char* name, const qorServiceOptions& options, qorServiceStatus* status) noexcept {
    return perform("qorServiceStart", qorServiceRequest::start, name, options, status);
}

bool qor::glue::qorServiceStop(const char* name, const qorServiceOptions& options, qorServiceStatus* status) noexcept {
    return perform("qorServiceStop", qorServiceRequest::stop, name, options, status);
}
