// Has a description, and another export than that of a module.
#include "odd_module.h"

extern "C" QOR_MODULE_EXPORT int another_point() noexcept { return 0; }
