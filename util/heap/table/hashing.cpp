#include "hashing.h"

#include <cstring>
#include <random>

namespace qor::heap {

namespace {

uint64 load(const char* at) noexcept {
    uint64 word;
    std::memcpy(&word, at, sizeof word);
    return word;
}

} // namespace

const uint64 hashing::key = [] {
    std::random_device source;
    return uint64{source()} << 32 | source();
}();

uint32 hashing::of_end(std::string_view text) noexcept {
    const char* const end = text.data() + text.size();
    return finish(mix(mix(key ^ text.size(), load(end - 16)), load(end - 8)));
}

// Reads sixteen bytes a step into two independent states. The last step of a long text overlaps the one before it.
uint32 hashing::of_text(std::string_view text) noexcept {
    const char* at = text.data();
    const char* const end = at + text.size();
    uint64 even = key ^ text.size();
    uint64 odd = ~key;
    if (text.size() < 8) {
        uint64 word = 0;
        if (!text.empty())
            std::memcpy(&word, at, text.size());
        return finish(mix(even, word));
    }
    for (; end - at > 16; at += 16) {
        even = mix(even, load(at));
        odd = mix(odd, load(at + 8));
    }
    if (end - at > 8)
        even = mix(even, load(at));
    odd = mix(odd, load(end - 8));
    return finish(mix(even, odd));
}

} // namespace qor::heap
