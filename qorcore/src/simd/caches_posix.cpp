#include "simd/cache_files.h"

#include "qor/glue/regular_file_posix.h"

#include <cstdlib>

namespace {

// Reads a file of one word; empty if it cannot be read.
std::string read_word(const std::string& path) {
    struct stat status;
    const int file = qor::glue::open_regular_file(path.c_str(), status);
    if (file < 0)
        return {};
    char text[32];
    const ssize_t length = read(file, text, sizeof text);
    close(file);
    const std::string word(text, length > 0 ? static_cast<std::size_t>(length) : 0);
    return word.substr(0, word.find_first_of(" \n"));
}

uint64 read_size(const std::string& path) {
    const std::string word = read_word(path);
    char* unit = nullptr;
    const uint64 number = std::strtoull(word.c_str(), &unit, 10);
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
