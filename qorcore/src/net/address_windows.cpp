#include "net/address.h"

// Windows writes scopes as numbers.
std::string qor::net::scope_name(uint32) { return {}; }
