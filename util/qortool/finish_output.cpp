#include "finish_output.h"

#include "qor/qor.h"

#include <cerrno>
#include <cstring>

int finish_output(int code) {
    errno = 0;
    const bool flushed = std::fflush(stdout) == 0;
    const int reason = errno;
    if (flushed && std::ferror(stdout) == 0)
        return code;
    if (reason != 0)
        fputmsg(stderr, "qorcore", 1022, std::strerror(reason));
    else
        fputmsg(stderr, "qorcore", 1023, true);
    return code == 0 ? 1 : code;
}
