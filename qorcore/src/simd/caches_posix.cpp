#include "simd/cache_files.h"

#include <array>
#include <cstdio>
#include <cstdlib>

namespace {

// A file of one word; empty if it cannot be read.
std::array<char, 32> read_word(const std::string& path) {
    std::array<char, 32> word{};
    if (std::FILE* const file = std::fopen(path.c_str(), "re")) {
        if (std::fscanf(file, "%31s", word.data()) != 1)
            word = {};
        std::fclose(file);
    }
    return word;
}

uint64 read_size(const std::string& path) {
    const std::array<char, 32> word = read_word(path);
    char* unit = nullptr;
    const uint64 number = std::strtoull(word.data(), &unit, 10);
    return *unit == 'K' ? number << 10 : *unit == 'M' ? number << 20 : number;
}

} // namespace

qor::simd::cache_sizes qor::simd::read_cache_files(const std::string& folder) {
    cache_sizes sizes{};
    for (int index = 0;; ++index) {
        const std::string cache = folder + "/index" + std::to_string(index) + "/";
        const char level = read_word(cache + "level")[0];
        if (level == '\0')
            return sizes;
        if (read_word(cache + "type")[0] == 'I')
            continue;
        if (level == '1')
            sizes.first_data = read_size(cache + "size");
        else if (level == '2')
            sizes.second = read_size(cache + "size");
        else if (level == '3')
            sizes.third = read_size(cache + "size");
    }
}

qor::simd::cache_sizes qor::simd::read_cache_sizes() noexcept {
    return read_cache_files("/sys/devices/system/cpu/cpu0/cache");
}
