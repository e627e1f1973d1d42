// Builds rtnetlink messages byte by byte.
#pragma once

#include "qor/system/Types.h"

#include <cstring>
#include <initializer_list>
#include <linux/netlink.h>
#include <string>
#include <utility>
#include <vector>

namespace network_test {

using bytes = std::vector<uint8>;

template <class VALUE>
bytes raw(const VALUE& value) {
    const auto* const first = reinterpret_cast<const uint8*>(&value);
    return {first, first + sizeof value};
}

inline bytes text(const std::string& value) { return {value.c_str(), value.c_str() + value.size() + 1}; }

inline bytes join(std::initializer_list<bytes> parts) {
    bytes all;
    for (const bytes& part : parts) {
        all.insert(all.end(), part.begin(), part.end());
        all.resize((all.size() + 3) / 4 * 4);
    }
    return all;
}

inline bytes attribute(int type, const bytes& value) {
    bytes all = raw(nlattr{static_cast<uint16>(sizeof(nlattr) + value.size()), static_cast<uint16>(type)});
    all.insert(all.end(), value.begin(), value.end());
    return all;
}

inline constexpr uint32 sequence = 1;
inline constexpr uint32 port = 77;

template <class HEADER>
bytes message(int type, const HEADER& header, std::initializer_list<bytes> attributes, int flags = NLM_F_MULTI) {
    const bytes inside = join({raw(header), join(attributes)});
    return join({raw(nlmsghdr{static_cast<uint32>(sizeof(nlmsghdr) + inside.size()), static_cast<uint16>(type),
                              static_cast<uint16>(flags), sequence, port}),
                 inside});
}

inline bytes done(int status = 0, int flags = NLM_F_MULTI) { return message(NLMSG_DONE, status, {}, flags); }
inline bytes refusal(int code) { return message(NLMSG_ERROR, nlmsgerr{-code, {}}, {}, 0); }

// Copies the header, for tests that change it in place.
inline nlmsghdr header_of(const bytes& from) {
    nlmsghdr header;
    std::memcpy(&header, from.data(), sizeof header);
    return header;
}
inline bytes with_header(bytes from, const nlmsghdr& header) {
    std::memcpy(from.data(), &header, sizeof header);
    return from;
}

} // namespace network_test
