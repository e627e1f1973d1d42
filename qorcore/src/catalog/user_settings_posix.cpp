#include "catalog/user_settings.h"

#include "process/process.h"

const char* qor::catalog::user_setting(const char* variable) noexcept { return process::environment(variable); }
