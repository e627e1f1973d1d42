#include "converter.h"

#include <gtest/gtest.h>

#include <iconv.h>

namespace {

bool convert(const char* to, const char* from, const std::string& in, std::string& out) {
    const iconv_t handle = iconv_open(to, from);
    EXPECT_NE(handle, reinterpret_cast<iconv_t>(-1));
    std::string source = in;
    out.assign(in.size() * 4 + 16, '\0');
    char* next_in = source.data();
    char* next_out = out.data();
    std::size_t in_left = source.size();
    std::size_t out_left = out.size();
    const std::size_t result = iconv(handle, &next_in, &in_left, &next_out, &out_left);
    out.resize(out.size() - out_left);
    iconv_close(handle);
    return result != static_cast<std::size_t>(-1);
}

} // namespace

bool qor::test::utf8_to_utf32(const std::string& in, std::string& out) { return convert("UTF-32LE", "UTF-8", in, out); }
bool qor::test::utf32_to_utf8(const std::string& in, std::string& out) { return convert("UTF-8", "UTF-32LE", in, out); }
bool qor::test::utf32_to_utf16(const std::string& in, std::string& out) {
    return convert("UTF-16LE", "UTF-32LE", in, out);
}
