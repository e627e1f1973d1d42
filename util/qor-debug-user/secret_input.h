// Reads passwords from a terminal or a pipe.
#pragma once

#include "qor/qor.h"

// Returns true if standard input is a terminal.
bool input_is_terminal();

// Reads the next line of standard input, without its end. On a terminal, the prompt is written to standard error and
// the typed text is not shown. Returns false at the end of the input.
bool read_secret(const qorString& prompt, qorString& line);
