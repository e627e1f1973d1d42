#include "system_reason.h"

#include <system_error>

std::string qor::compression::system_reason(int code) { return std::system_category().message(code); }
