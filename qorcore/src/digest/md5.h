// Inside the library: MD5 (RFC 1321). This implementation needs no module, works where a policy of the host's
// cryptographic library forbids MD5, and is faster. MD5 distinguishes files; it gives no security.
#pragma once

#include "qor/system/Types.h"

#include <cstddef>

namespace qor::digest {

// A copy has the state so far. Not thread-safe.
class md5 {
public:
    static constexpr std::size_t digest_size = 16;

    void update(const uint8* bytes, std::size_t size) noexcept;

    // Ends the message and writes its digest. The object must not be used afterwards.
    void finish(uint8 (&digest)[digest_size]) noexcept;

private:
    static constexpr std::size_t block_size = 64;

    void take_blocks(const uint8* bytes, std::size_t count) noexcept;

    uint32 m_state[4] = {0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476};
    uint64 m_size = 0;             // of the message so far, in bytes
    uint8 m_rest[block_size] = {}; // the bytes that do not fill a block yet
};

} // namespace qor::digest
