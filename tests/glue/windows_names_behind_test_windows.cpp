// windows.h after our headers.
#include "qor/qor.h"

#include <windows.h>

#define QOR_TEST_SUITE windows_names_behind
#include "glue/windows_names.h"
