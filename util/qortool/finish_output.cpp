#include "finish_output.h"

#include "message_names.h"
#include "qor/qor.h"

#include <cerrno>
#include <cstring>

namespace framework = qor::messages::framework;

int finish_output(int code) {
    errno = 0;
    const bool flushed = std::fflush(stdout) == 0;
    const int reason = errno;
    if (flushed && std::ferror(stdout) == 0)
        return code;
    if (reason != 0)
        fputmsg(stderr, framework::catalog, framework::results_not_written_because, std::strerror(reason));
    else
        fputmsg(stderr, framework::catalog, framework::results_not_written, true);
    return code == 0 ? 1 : code;
}
