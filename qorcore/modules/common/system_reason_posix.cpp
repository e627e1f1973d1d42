#include "common/system_reason.h"

#include <system_error>

std::string qor::modules::system_reason(int code) { return std::generic_category().message(code); }

const std::error_category& qor::modules::system_category() noexcept { return std::generic_category(); }
