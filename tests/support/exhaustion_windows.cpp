// System functions are called through pointers that the loader fills in; the linker replaces the pointer.
#include "support/exhaustion.h"

#include <windows.h>

extern "C" {

extern decltype(&CreateEventW) __real___imp_CreateEventW;
extern decltype(&CreateEventW) __wrap___imp_CreateEventW;

static HANDLE WINAPI create_event(SECURITY_ATTRIBUTES* security, BOOL manual_reset, BOOL set, const wchar_t* name) {
    return qor::test::is_refused() ? nullptr : __real___imp_CreateEventW(security, manual_reset, set, name);
}

decltype(&CreateEventW) __wrap___imp_CreateEventW = create_event;

} // extern "C"
