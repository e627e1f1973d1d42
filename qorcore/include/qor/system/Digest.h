// Digests of data, by the name of their algorithm.
#pragma once

#include "qor/glue/binding.h"
#include "qor/system/Interface.h"

class uint8_Array;

// Takes the digest of all bytes that it is given, piece by piece. Not thread-safe.
class IQORDigestEngine : public IQORInterface {
public:
    // Forgets what it was given.
    virtual bool Reset() noexcept = 0;

    // Adds bytes; `data` may be null where `length` is 0.
    virtual bool Update(const void* data, uint32 length) noexcept = 0;

    // The digest of all bytes so far, in place of what `out` held. More can be added afterwards.
    virtual bool GetDigest(uint8_Array& out) noexcept = 0;

protected:
    ~IQORDigestEngine() = default;
};

// A new engine for "md5" (16 bytes), "sha1" (20), "sha256" (32) or "sha512" (64); letters are small. All but "md5" come
// from the module qor-openssl, which is loaded when the first one is wanted. False: *out is as it was, and the last
// error says whether there is no such algorithm or what is wrong with the module. MD5 and SHA-1 tell files apart; they
// protect nothing against somebody who builds files on purpose.
[[nodiscard]] inline bool qorCreateDigestEngine(const char* algorithm, IQORDigestEngine** out) noexcept {
    return qor::glue::qorCreateDigestEngine(algorithm, out);
}
