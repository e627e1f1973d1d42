// The last error of this thread, as the library words it.
#pragma once

#include "qor/qor.h"

#include <string>

namespace qor::test {

inline std::string last_error() {
    qorString text;
    qorGetLastError(text);
    return {text.Text(), text.Length()};
}

} // namespace qor::test
