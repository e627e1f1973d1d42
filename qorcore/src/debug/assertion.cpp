// Failed assertions: reported, never fatal.
#include "message_names.h"
#include "platform/own_process.h"
#include "qor/qor.h"

#include <string>

namespace framework = qor::messages::framework;

void qor::glue::qorAssertFailed(const char* expr, const char* func, const char* file, int line) noexcept {
    ::fputmsg(stderr, framework::catalog, framework::assertion_failed, qor::platform::name(), expr, func, file,
              std::to_string(line).c_str());
}
