// Digests of data, selected by the name of their algorithm.
#pragma once

#include "qor/glue/binding.h"
#include "qor/system/Interface.h"

class uint8_Array;

// Computes the digest of the bytes that it is given piece by piece. Operations return false on failure (last error).
// Not thread-safe.
class IQORDigestEngine : public IQORInterface {
public:
    // Discards all bytes so far.
    virtual bool Reset() noexcept = 0;

    // Adds bytes; `data` may be null if `length` is 0.
    virtual bool Update(const void* data, uint32 length) noexcept = 0;

    // Replaces the content of `out` by the digest of all bytes so far. More bytes can follow.
    virtual bool GetDigest(uint8_Array& out) noexcept = 0;

protected:
    ~IQORDigestEngine() = default;
};

// Creates an engine for "md5" (16 bytes), "sha1" (20), "sha256" (32) or "sha512" (64); the names are in lower case. All
// but "md5" come from the module qor-openssl, which is loaded on first use. Returns false and leaves *out unchanged if
// there is no such algorithm or if the module fails; the last error says which. MD5 and SHA-1 distinguish files, but do
// not protect against deliberately crafted files. Any thread.
[[nodiscard]] inline bool qorCreateDigestEngine(const char* algorithm, IQORDigestEngine** out) noexcept {
    return qor::glue::qorCreateDigestEngine(algorithm, out);
}
