// What actions share when they look at their words.
#pragma once

#include "qor/qor.h"

// For an action without options that takes `count` words. False: there is an option or another number of words, and
// the user has been told.
bool check_arguments(qorStringArray& args, const char* action, uint32 count);
