#include "format.h"

namespace qor::compression {

namespace {

using namespace std::string_view_literals;

constexpr std::string_view gzip_signature = "\x1f\x8b"sv;
constexpr std::string_view zstd_signature = "\x28\xb5\x2f\xfd"sv;

// Behind a byte from 0x50 to 0x5f: a frame that every decompressor skips. Other programs store what they like there.
constexpr std::string_view skippable_signature = "\x2a\x4d\x18"sv;

// Whether one of them begins with the other.
bool agree(std::string_view bytes, std::string_view signature) noexcept {
    const std::string_view::size_type shared = bytes.size() < signature.size() ? bytes.size() : signature.size();
    return bytes.substr(0, shared) == signature.substr(0, shared);
}

} // namespace

beginning recognise(std::string_view bytes) noexcept {
    if (bytes.empty())
        return {format::none, true};
    if (agree(bytes, gzip_signature))
        return {format::gzip, bytes.size() < gzip_signature.size()};
    if (agree(bytes, zstd_signature) || ((bytes[0] & 0xf0) == 0x50 && agree(bytes.substr(1), skippable_signature)))
        return {format::zstd, bytes.size() < longest_signature};
    return {format::none, false};
}

const char* name_of(format which) noexcept {
    switch (which) {
    case format::gzip:
        return "gzip";
    case format::zstd:
        return "zstd";
    case format::none:
        break;
    }
    return "";
}

} // namespace qor::compression
