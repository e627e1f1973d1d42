// Inside the serial ports: checking what a port is to be set to, and comparing it with what the driver took.
#pragma once

#include "qor/qor.h"

#include <string>

namespace qor::serial {

// Checks all groups that are filled in. On false, the last error names `operation`.
bool is_valid(const qorSerialParams& params, const char* operation);

// The rate and form of characters in the usual short form, "9600 7E1".
std::string short_form(const qorSerialParams& params);

// A parameter that a driver did not take.
struct not_taken {
    uint32 parameter = 0; // its name's number in the catalog "qorcore"; 0: it has taken everything
    std::string wanted;
    std::string got;
};

// A switch among the parameters.
not_taken not_switched(uint32 parameter, bool wanted);

// The first of the basics and of the flow control that is not as wanted.
not_taken compare(const qorSerialParams& wanted, const qorSerialSettings& got);
not_taken compare(const qorSerialRS485& wanted, const qorSerialRS485& got);

// Sets the last error for a parameter that was not taken.
void report(const std::string& port, const not_taken& which);

} // namespace qor::serial
