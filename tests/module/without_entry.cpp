// Has a description, and another export than that of a module.
#include "odd_module.h"

extern "C" QOR_EXPORTED int another_point() noexcept { return 0; }
