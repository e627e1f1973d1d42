#include "libraries.h"

#include "shared_library.h"

#include <atomic>

namespace qor::compression {

namespace {

// Fills a table from a library, function by function; remembers the first that is missing.
class finder {
public:
    explicit finder(void* library) : m_library(library) {}

    template <class FUNCTION>
    void find(FUNCTION*& out, const char* name) noexcept {
        out = reinterpret_cast<FUNCTION*>(find_function(m_library, name));
        if (out == nullptr && m_missing == nullptr)
            m_missing = name;
    }

    const char* missing() const noexcept { return m_missing; }

private:
    void* m_library;
    const char* m_missing = nullptr;
};

void fill(finder& library, zlib_functions& out) {
    library.find(out.inflate_init, "inflateInit2_");
    library.find(out.inflate, "inflate");
    library.find(out.inflate_reset, "inflateReset");
    library.find(out.inflate_end, "inflateEnd");
    library.find(out.deflate_init, "deflateInit2_");
    library.find(out.deflate, "deflate");
    library.find(out.deflate_reset, "deflateReset");
    library.find(out.deflate_end, "deflateEnd");
}

void fill(finder& library, zstd_functions& out) {
    library.find(out.is_error, "ZSTD_isError");
    library.find(out.error_code, "ZSTD_getErrorCode");
    library.find(out.create_decompressor, "ZSTD_createDCtx");
    library.find(out.free_decompressor, "ZSTD_freeDCtx");
    library.find(out.set_decompressor, "ZSTD_DCtx_setParameter");
    library.find(out.decompress, "ZSTD_decompressStream");
    library.find(out.create_compressor, "ZSTD_createCCtx");
    library.find(out.free_compressor, "ZSTD_freeCCtx");
    library.find(out.set_compressor, "ZSTD_CCtx_setParameter");
    library.find(out.compress, "ZSTD_compressStream2");
}

// Threads that come at once find the same functions.
template <class TABLE>
const TABLE* load(const char* file, std::string& reason) {
    static std::atomic<const TABLE*> loaded{nullptr};
    if (const TABLE* const known = loaded.load(std::memory_order_acquire))
        return known;
    void* const library = load_library(file, reason);
    if (library == nullptr)
        return nullptr;
    TABLE found;
    finder functions(library);
    fill(functions, found);
    if (functions.missing() != nullptr) {
        reason = std::string("no function ") + functions.missing();
        return nullptr;
    }
    static const TABLE table = found;
    loaded.store(&table, std::memory_order_release);
    return &table;
}

} // namespace

const zlib_functions* zlib(std::string& reason) { return load<zlib_functions>(zlib_file, reason); }
const zstd_functions* zstd(std::string& reason) { return load<zstd_functions>(zstd_file, reason); }

} // namespace qor::compression
