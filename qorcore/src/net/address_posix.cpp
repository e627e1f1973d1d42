#include "net/address.h"

#include <net/if.h>

std::string qor::net::scope_name(uint32 scope) {
    char name[IF_NAMESIZE];
    return if_indextoname(scope, name) != nullptr ? name : "";
}

uint32 qor::net::scope_index(const std::string& name) { return if_nametoindex(name.c_str()); }
