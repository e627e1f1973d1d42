// Secrets on the command line: other processes can read it as long as this one runs.
#pragma once

#include "qor/qor.h"

// The words that main was given; they live as long as the process.
void keep_arguments(int argc, char* const* argv);

// Overwrites every such word that is equal to this text, and what else of the command line the system shows to others.
void hide_argument(const char* text);

// Overwrites an element of an array, whose text is then empty or zeros.
void wipe_element(qorStringArray& array, uint32 index);
