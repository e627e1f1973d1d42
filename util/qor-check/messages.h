// What the program says: in the user's language if a libqor is bound, otherwise in English.
#pragma once

#include "message_names.h"

#include <initializer_list>
#include <string>

namespace qor::check {

namespace message = qor::messages::check;

std::string text_of(uint32 number, std::initializer_list<std::string> inserts = {});

// A line of its own on standard output or standard error.
void print(const std::string& line);
void complain(const std::string& line);

} // namespace qor::check
