// A library that a program loads and unloads again and again. It is built twice, with different names of its function:
// a frame of one must never be taken for one of the other, which is loaded at the same address a moment later.
#include <cstdlib>
#include <map>
#include <string>

namespace {

// Padding, so that the functions of the two libraries have different addresses.
#ifdef PADDED
[[gnu::used]] int padding(int a) {
    for (int i = 0; i < a; ++i) {
        a ^= a * i + (a >> 3);
    }
    return a;
}
#endif

std::map<int, std::string>& names() {
    static std::map<int, std::string> map{{1, "a text that is too long for the string itself"}};
    return map;
}

} // namespace

extern "C" [[gnu::visibility("default"), gnu::noinline]] void LIBRARY_FUNCTION(std::size_t lost) {
    auto& map = names();
    for (int i = 0; i < 20; ++i) {
        map[i] += "one more text that is too long for the string";
    }
    map.clear();
    if (lost != 0) {
        [[maybe_unused]] static void* volatile place;
        place = std::malloc(lost);
        place = nullptr;
    }
}
