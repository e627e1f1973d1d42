// zlib and libzstd, loaded when they are first wanted: a program that meets nothing compressed neither needs them nor
// pays for them. Each is a table of the functions that are used.
#pragma once

#include <string>
#include <zlib.h>
#include <zstd.h>
#include <zstd_errors.h>

namespace qor::compression {

struct zlib_functions {
    decltype(::inflateInit2_)* inflate_init;
    decltype(::inflate)* inflate;
    decltype(::inflateReset)* inflate_reset;
    decltype(::inflateEnd)* inflate_end;
    decltype(::deflateInit2_)* deflate_init;
    decltype(::deflate)* deflate;
    decltype(::deflateReset)* deflate_reset;
    decltype(::deflateEnd)* deflate_end;
};

struct zstd_functions {
    decltype(::ZSTD_isError)* is_error;
    decltype(::ZSTD_getErrorCode)* error_code;
    decltype(::ZSTD_createDCtx)* create_decompressor;
    decltype(::ZSTD_freeDCtx)* free_decompressor;
    decltype(::ZSTD_DCtx_setParameter)* set_decompressor;
    decltype(::ZSTD_decompressStream)* decompress;
    decltype(::ZSTD_createCCtx)* create_compressor;
    decltype(::ZSTD_freeCCtx)* free_compressor;
    decltype(::ZSTD_CCtx_setParameter)* set_compressor;
    decltype(::ZSTD_compressStream2)* compress;
};

// The table, which stays. Null: `reason` says why the library cannot be used. On any thread; the next call after a
// failure tries again.
const zlib_functions* zlib(std::string& reason);
const zstd_functions* zstd(std::string& reason);

} // namespace qor::compression
