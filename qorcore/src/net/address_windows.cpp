#include "net/address.h"

// Windows writes scopes as numbers.
std::string qor::net::scope_name(uint32) { return {}; }
uint32 qor::net::scope_index(const std::string&) { return 0; }
