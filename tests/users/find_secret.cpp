// Preloaded into a program: searches its memory when it ends. FIND_SECRET is the text written backwards, so that the
// search does not find the variable; FIND_SECRET_LOG gets the number of places.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <unistd.h>

namespace {

std::size_t count_in(const char* begin, std::size_t size, const char* backwards) {
    const std::size_t length = std::strlen(backwards);
    std::size_t found = 0;
    for (std::size_t i = 0; i + length <= size; ++i) {
        std::size_t k = 0;
        while (k < length && begin[i + k] == backwards[length - 1 - k])
            ++k;
        found += k == length;
    }
    return found;
}

[[gnu::destructor]] void find_secret() {
    const char* const backwards = std::getenv("FIND_SECRET");
    const char* const log = std::getenv("FIND_SECRET_LOG");
    if (backwards == nullptr || log == nullptr)
        return;
    const int memory = open("/proc/self/mem", O_RDONLY | O_CLOEXEC);
    std::FILE* const maps = std::fopen("/proc/self/maps", "r");
    std::size_t found = 0;
    for (char line[4096]; std::fgets(line, sizeof line, maps) != nullptr;) {
        unsigned long begin = 0, end = 0;
        char rights[5];
        if (std::sscanf(line, "%lx-%lx %4s", &begin, &end, rights) != 3 || rights[0] != 'r' || rights[1] != 'w')
            continue;
        std::string copy(end - begin, '\0');
        const ssize_t size = pread(memory, copy.data(), copy.size(), static_cast<off_t>(begin));
        found += count_in(copy.data(), static_cast<std::size_t>(std::max<ssize_t>(size, 0)), backwards);
        std::fill(copy.begin(), copy.end(), '\0'); // the next part may contain it
    }
    std::fclose(maps);
    close(memory);
    if (std::FILE* const out = std::fopen(log, "w")) {
        std::fprintf(out, "%zu\n", found);
        std::fclose(out);
    }
}

} // namespace
