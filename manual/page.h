// Manual pages: a hand-written part with places for what the tables say.
#pragma once

#include "programs.h"

#include <string>
#include <vector>

namespace qor::manual {

// Fills in a page in the macros of man(7). A line of the form "@WORDS@" is a place:
//
//     @ACTION NAME@, @OPTION NAME@       one row of the tables; text for it may follow
//     @ACTIONS@, @OPTIONS@               the rows that no other place names
//     @FRAMEWORK OPTIONS@                the options of every program of the framework
//     @ENVIRONMENT@                      the variables that do the same
//     @EXIT CODES@, @CONSOLE COMMANDS@
//
// "@VERSION@" may stand in any line. `of` is the program of the page, null for the page of a format. A place that is
// unknown, or a row without a place, throws std::runtime_error with a text that names the line or the row.
std::string fill_in(const std::string& page, const std::string& version, const program* of);

} // namespace qor::manual
