// windows.h before our headers.
#include <windows.h>

#include "qor/qor.h"

#define QOR_TEST_SUITE windows_names_before
#include "glue/windows_names.h"
