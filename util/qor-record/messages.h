// The program's messages on standard error: numbered texts in the user's language.
#pragma once

#include "message_names.h"

#include <initializer_list>
#include <string>

namespace qor::record {

namespace message = qor::messages::record;

std::string text_of(uint32 number, std::initializer_list<std::string> inserts = {});

// "record: TEXT", on a line of its own.
void say(uint32 number, std::initializer_list<std::string> inserts = {});

} // namespace qor::record
