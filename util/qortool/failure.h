// Reports a failed call of the framework.
#pragma once

#include "qor/qor.h"

// Prints the last error on standard error. Returns the exit code of a failed action.
inline int report_failure() {
    fputerr(stderr, true);
    return 1;
}

// Prints a text that says what failed, then the error. The error is read before the text is printed.
QOR_PRINTF(1, 2) inline int report_failure(const char* format, ...) {
    qorString reason;
    qorGetLastError(reason);
    std::va_list arguments;
    va_start(arguments, format);
    fixed_vfprintf(stderr, format, arguments);
    va_end(arguments);
    reason.Put(stderr, true);
    return 1;
}
