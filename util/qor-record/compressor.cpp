#include "compression.h"

#include <dlfcn.h>
#include <new>
#include <zlib.h>
#include <zstd.h>

namespace qor::record {

namespace {

constexpr int fastest = 1;
constexpr std::size_t piece = 64U << 10;

// The functions of a library, by their declarations. A library that lacks one of them cannot be used.
class loaded_library {
public:
    explicit loaded_library(const char* name) : m_name(name), m_handle(::dlopen(name, RTLD_NOW | RTLD_LOCAL)) {
        if (m_handle == nullptr)
            m_why = ::dlerror();
    }
    template <class Function>
    void find(Function*& function, const char* name) {
        function = m_handle != nullptr ? reinterpret_cast<Function*>(::dlsym(m_handle, name)) : nullptr;
        if (function == nullptr && m_why.empty())
            m_why = name;
    }
    const char* name() const noexcept { return m_name; }
    const std::string& why() const noexcept { return m_why; }

private:
    const char* m_name;
    void* m_handle;
    std::string m_why; // empty: it has all functions
};

#define QOR_FUNCTION(name) decltype(::name)* name = nullptr
#define QOR_FIND(name) library.find(name, #name)

struct zstd_library {
    loaded_library library{"libzstd.so.1"};
    QOR_FUNCTION(ZSTD_createCCtx);
    QOR_FUNCTION(ZSTD_freeCCtx);
    QOR_FUNCTION(ZSTD_CCtx_setParameter);
    QOR_FUNCTION(ZSTD_compressStream2);
    QOR_FUNCTION(ZSTD_createDCtx);
    QOR_FUNCTION(ZSTD_freeDCtx);
    QOR_FUNCTION(ZSTD_decompressStream);
    QOR_FUNCTION(ZSTD_isError);

    zstd_library() {
        QOR_FIND(ZSTD_createCCtx);
        QOR_FIND(ZSTD_freeCCtx);
        QOR_FIND(ZSTD_CCtx_setParameter);
        QOR_FIND(ZSTD_compressStream2);
        QOR_FIND(ZSTD_createDCtx);
        QOR_FIND(ZSTD_freeDCtx);
        QOR_FIND(ZSTD_decompressStream);
        QOR_FIND(ZSTD_isError);
    }
};

struct zlib_library {
    loaded_library library{"libz.so.1"};
    QOR_FUNCTION(deflateInit2_);
    QOR_FUNCTION(deflate);
    QOR_FUNCTION(deflateEnd);
    QOR_FUNCTION(inflateInit2_);
    QOR_FUNCTION(inflate);
    QOR_FUNCTION(inflateEnd);

    zlib_library() {
        QOR_FIND(deflateInit2_);
        QOR_FIND(deflate);
        QOR_FIND(deflateEnd);
        QOR_FIND(inflateInit2_);
        QOR_FIND(inflate);
        QOR_FIND(inflateEnd);
    }
};

#undef QOR_FIND
#undef QOR_FUNCTION

const zstd_library& zstd() {
    static const zstd_library only;
    return only;
}

const zlib_library& zlib() {
    static const zlib_library only;
    return only;
}

// Room for the next piece of output behind what there is.
char* room_in(std::string& out) {
    out.resize(out.size() + piece);
    return out.data() + out.size() - piece;
}

class zstd_compressor : public compressor {
public:
    zstd_compressor() : m_context(zstd().ZSTD_createCCtx()) {
        if (m_context != nullptr)
            zstd().ZSTD_CCtx_setParameter(m_context, ZSTD_c_compressionLevel, fastest);
    }
    ~zstd_compressor() override { zstd().ZSTD_freeCCtx(m_context); }

    bool put(const char* data, std::size_t size, how_far until, std::string& out) override {
        constexpr ZSTD_EndDirective directives[] = {ZSTD_e_continue, ZSTD_e_flush, ZSTD_e_end};
        ZSTD_inBuffer in{data, size, 0};
        for (std::size_t left = 1; m_context != nullptr;) {
            ZSTD_outBuffer to{room_in(out), piece, 0};
            left = zstd().ZSTD_compressStream2(m_context, &to, &in, directives[static_cast<int>(until)]);
            out.resize(out.size() - piece + to.pos);
            if (zstd().ZSTD_isError(left) != 0)
                return false;
            if (until == how_far::on ? in.pos == in.size : left == 0)
                return true;
        }
        return false;
    }

private:
    ZSTD_CCtx* m_context;
};

class zstd_decompressor : public decompressor {
public:
    zstd_decompressor() : m_context(zstd().ZSTD_createDCtx()) {}
    ~zstd_decompressor() override { zstd().ZSTD_freeDCtx(m_context); }

    bool put(const char* data, std::size_t size, std::string& out) override {
        ZSTD_inBuffer in{data, size, 0};
        for (;;) {
            ZSTD_outBuffer to{room_in(out), piece, 0};
            const std::size_t result =
                m_context != nullptr ? zstd().ZSTD_decompressStream(m_context, &to, &in) : std::size_t(-1);
            out.resize(out.size() - piece + to.pos);
            if (zstd().ZSTD_isError(result) != 0)
                return false;
            if (in.pos == in.size && to.pos < piece)
                return true;
        }
    }

private:
    ZSTD_DCtx* m_context;
};

constexpr int gzip_window = 15 + 16; // the largest window, and the frame of gzip around it

class gzip_compressor : public compressor {
public:
    gzip_compressor()
        : m_is_there(zlib().deflateInit2_(&m_stream, fastest, Z_DEFLATED, gzip_window, 8, Z_DEFAULT_STRATEGY,
                                          ZLIB_VERSION, sizeof m_stream) == Z_OK) {}
    ~gzip_compressor() override { zlib().deflateEnd(&m_stream); }

    bool put(const char* data, std::size_t size, how_far until, std::string& out) override {
        constexpr int flushes[] = {Z_NO_FLUSH, Z_SYNC_FLUSH, Z_FINISH};
        m_stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data));
        m_stream.avail_in = static_cast<uInt>(size);
        while (m_is_there) {
            m_stream.next_out = reinterpret_cast<Bytef*>(room_in(out));
            m_stream.avail_out = piece;
            const int result = zlib().deflate(&m_stream, flushes[static_cast<int>(until)]);
            out.resize(out.size() - m_stream.avail_out);
            if (result == Z_STREAM_ERROR)
                return false;
            if (m_stream.avail_out != 0)
                return true;
        }
        return false;
    }

private:
    z_stream m_stream{};
    bool m_is_there;
};

class gzip_decompressor : public decompressor {
public:
    gzip_decompressor()
        : m_is_there(zlib().inflateInit2_(&m_stream, gzip_window, ZLIB_VERSION, sizeof m_stream) == Z_OK) {}
    ~gzip_decompressor() override { zlib().inflateEnd(&m_stream); }

    bool put(const char* data, std::size_t size, std::string& out) override {
        m_stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data));
        m_stream.avail_in = static_cast<uInt>(size);
        while (m_is_there) {
            m_stream.next_out = reinterpret_cast<Bytef*>(room_in(out));
            m_stream.avail_out = piece;
            const int result = zlib().inflate(&m_stream, Z_NO_FLUSH);
            out.resize(out.size() - m_stream.avail_out);
            if (result != Z_OK && result != Z_BUF_ERROR)
                return result == Z_STREAM_END;
            if (m_stream.avail_in == 0 && m_stream.avail_out != 0)
                return true;
        }
        return false;
    }

private:
    z_stream m_stream{};
    bool m_is_there;
};

} // namespace

const char* suffix_of(compression kind) noexcept {
    return kind == compression::zstd ? ".zst" : kind == compression::gzip ? ".gz" : "";
}

bool can_compress(compression kind, std::string& library, std::string& why) {
    if (kind == compression::none)
        return true;
    const loaded_library& wanted = kind == compression::zstd ? zstd().library : zlib().library;
    library = wanted.name();
    why = wanted.why();
    return why.empty();
}

std::unique_ptr<compressor> make_compressor(compression kind) {
    switch (kind) {
    case compression::zstd:
        return std::make_unique<zstd_compressor>();
    case compression::gzip:
        return std::make_unique<gzip_compressor>();
    case compression::none:
        break;
    }
    return nullptr;
}

std::unique_ptr<decompressor> make_decompressor(compression kind) {
    switch (kind) {
    case compression::zstd:
        return std::make_unique<zstd_decompressor>();
    case compression::gzip:
        return std::make_unique<gzip_decompressor>();
    case compression::none:
        break;
    }
    return nullptr;
}

} // namespace qor::record
