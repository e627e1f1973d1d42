// Has a description, and an export of the right name that is a number.
#include "odd_module.h"

extern "C" {
QOR_EXPORTED int glue_module_point = 1;
}
