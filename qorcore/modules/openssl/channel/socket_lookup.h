// Inside the seam to sockets: looks up hosts by name. Each platform supplies its types and functions.
#pragma once

#include "sockets.h"

namespace qor::sockets {

// Appends the endpoints of a host that `get` finds with `hints`. The host and the port are texts of the system. Returns
// 0 or the error code of `get`.
template <class TEXT, class INFO, class GET, class FREE>
int look_up(const TEXT& host, const TEXT& port, const INFO& hints, GET get, FREE free, std::vector<endpoint>& out) {
    INFO* found = nullptr;
    if (const int failed = get(host.c_str(), port.c_str(), &hints, &found))
        return failed;
    for (const INFO* each = found; each != nullptr; each = each->ai_next)
        out.emplace_back(each->ai_addr, each->ai_addrlen);
    free(found);
    return 0;
}

} // namespace qor::sockets
