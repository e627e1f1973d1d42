// Passwords that are typed, or come through a pipe.
#pragma once

#include "qor/qor.h"

// Whether somebody sits there and types.
bool input_is_terminal();

// The next line of standard input, without its end. In a terminal the prompt, on standard error, asks for it, and what
// is typed is not shown. False: the input has ended.
bool read_secret(const qorString& prompt, qorString& line);
