// Secrets on the command line, which other processes can read as long as this one runs.
#pragma once

#include "qor/qor.h"

// Remembers the arguments of main, which live as long as the process.
void remember_arguments(int argc, char* const* argv);

// Overwrites every argument of main that equals this text, and the copies of the command line that the system shows.
void hide_argument(const char* text);

// Overwrites an element of an array. Its text is then empty or zeros.
void wipe_element(qorStringArray& array, uint32 index);
