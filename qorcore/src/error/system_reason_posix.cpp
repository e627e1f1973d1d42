#include "error/error.h"

#include <cstring>

std::string qor::error::system_reason(int code) {
    char text[256];
    // The C library's GNU form returns the text, which need not lie in the buffer.
    return strerror_r(code, text, sizeof text);
}
