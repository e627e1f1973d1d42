// Has a description, and an export of the right name that is a number.
#include "odd_module.h"

extern "C" {
QOR_MODULE_EXPORT int glue_module_point = 1;
}
