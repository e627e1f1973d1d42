// windows.h behind our headers.
#include "qor/qor.h"

#include <windows.h>

#define QOR_TEST_SUITE WindowsNamesBehind
#include "glue/windows_names.h"
