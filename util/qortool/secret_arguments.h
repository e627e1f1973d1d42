// Secrets on the command line, which other processes can read while this one runs.
#pragma once

#include "qor/qor.h"

// Remembers the arguments of main, which are valid until the process ends.
void remember_arguments(int argc, char* const* argv);

// Overwrites every argument of main that equals this text, and the system's visible copies of the command line.
void hide_argument(const char* text);

// Overwrites an element of an array. Its text is then empty or consists of zero bytes.
void wipe_element(qorStringArray& array, uint32 index);
