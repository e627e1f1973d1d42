/* A program that calls no function of a C run-time. */
#include <windows.h>

void begin(void) {
    HeapAlloc(GetProcessHeap(), 0, 71501);
    ExitProcess(6);
}
