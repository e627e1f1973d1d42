#include "net/services.h"

#include "memory/allocator.h"

#include <cerrno>
#include <netdb.h>
#include <netinet/in.h>
#include <vector>

namespace {

// An entry with all its aliases is shorter.
constexpr std::size_t largest_entry = 1 << 20;

} // namespace

bool qor::net::port_of_service(const std::string& name, uint16& out) {
    servent entry;
    servent* found = nullptr;
    std::vector<char> room(1024);
    int code;
    while ((code = getservbyname_r(name.c_str(), "tcp", &entry, room.data(), room.size(), &found)) == ERANGE &&
           room.size() < largest_entry)
        room = std::vector<char>(room.size() * 4);
    if (code == ENOMEM)
        qor::glue::qorEndOutOfMemory();
    if (code != 0 || found == nullptr)
        return false;
    out = ntohs(static_cast<uint16>(found->s_port));
    return true;
}
