// Inside the library: texts of the catalog that errors of messages insert.
#pragma once

#include "qor/system/Types.h"

#include <string>

namespace qor::ipc {

std::string text_of(uint32 message, const char* insert = "");

} // namespace qor::ipc
