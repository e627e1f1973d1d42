#include "common/system_reason.h"

#include <system_error>

std::string qor::modules::system_reason(int code) { return std::generic_category().message(code); }
