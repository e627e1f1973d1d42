#include "catalog/user_settings.h"

#include "platform/own_process.h"

const char* qor::catalog::user_setting(const char* variable) noexcept { return platform::environment(variable); }
