#include "support/holdings.h"

#include <filesystem>
#include <iterator>
#include <malloc.h>

namespace {

std::size_t entries(const char* folder) {
    const std::filesystem::directory_iterator all(folder);
    return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

} // namespace

qor::test::holdings qor::test::own_holdings() {
    return {entries("/proc/self/fd"), entries("/proc/self/task"), mallinfo2().uordblks};
}
