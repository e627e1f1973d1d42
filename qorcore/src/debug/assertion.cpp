// Failed assertions: reported, never fatal.
#include "platform/own_process.h"
#include "qor/qor.h"

#include <string>

void qor::glue::qorAssertFailed(const char* expr, const char* func, const char* file, int line) noexcept {
    ::fputmsg(stderr, "qorcore", 1021, qor::platform::name(), expr, func, file, std::to_string(line).c_str());
}
