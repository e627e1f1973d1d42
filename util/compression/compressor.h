// Compresses data that come in pieces.
#pragma once

#include "format.h"
#include "libraries.h"

#include <string>
#include <string_view>

namespace qor::compression {

class compressor {
public:
    // The state of the output behind a piece.
    enum class ending : unsigned char {
        none,  // nothing yet: the library waits for more
        flush, // all so far can be decompressed
        whole, // the stream ends; the next piece begins another
    };

    compressor() = default;
    compressor(const compressor&) = delete;
    compressor& operator=(const compressor&) = delete;
    ~compressor();

    // Once for each object; `level` as the library has it. False: reason() says why, and names the library.
    bool start(format which, int level);

    // Appends to `out` what becomes of the bytes. False: there is not enough memory, and nothing more can be added.
    bool add(std::string_view bytes, ending how, std::string& out);

    const std::string& reason() const noexcept { return m_reason; }

private:
    bool start_gzip(int level);
    bool start_zstd(int level);
    bool add_gzip(std::string_view bytes, ending how, std::string& out);
    bool add_zstd(std::string_view bytes, ending how, std::string& out);

    format m_format = format::none;
    std::string m_reason;
    const zlib_functions* m_zlib = nullptr; // with it m_deflate is set up
    z_stream m_deflate{};
    const zstd_functions* m_zstd = nullptr;
    ZSTD_CCtx* m_zstd_state = nullptr;
};

} // namespace qor::compression
