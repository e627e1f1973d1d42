// The decompressor over damaged data: it ends, stays in its buffers, and says the same in whatever pieces the data come
// and the text is taken.
#include "compression/decompressor.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

namespace {

using namespace qor::compression;

struct result {
    std::string text;
    decompressor::outcome last;
    bool may_end;
};

// How much of a damaged block libzstd hands out depends on the pieces.
bool agree(const result& one, const result& other) {
    const std::size_t shared = std::min(one.text.size(), other.text.size());
    return one.last == other.last && one.may_end == other.may_end &&
           (one.last != decompressor::outcome::good || one.text.size() == other.text.size()) &&
           one.text.compare(0, shared, other.text, 0, shared) == 0;
}

// Some kilobytes can say that they are gigabytes.
constexpr std::size_t enough = 256 * 1024;

void require(bool holds) {
    if (!holds)
        std::abort();
}

result decompress(const char* data, std::size_t size, std::size_t in, std::size_t out) {
    decompressor state;
    result found{{}, decompressor::outcome::good, true};
    const char* next = data;
    const char* const end = data + size;
    while (found.last == decompressor::outcome::good && found.text.size() < enough) {
        // Blocks of exactly these sizes, so that a step beyond an end is seen.
        const std::vector<char> piece(next, next + std::min<std::size_t>(in, static_cast<std::size_t>(end - next)));
        std::vector<char> room(out);
        const char* used = piece.data();
        char* made = room.data();
        found.last = state.convert(used, piece.data() + piece.size(), made, room.data() + room.size());
        next += used - piece.data();
        found.text.append(room.data(), made);
        const bool is_full = made == room.data() + room.size();
        if (found.last != decompressor::outcome::good || (next == end && !is_full))
            break;
        require(is_full || used == piece.data() + piece.size());
    }
    require(state.position() <= size);
    found.may_end = state.is_between_streams();
    if (found.text.size() >= enough)
        found = {found.text.substr(0, enough), decompressor::outcome::good, true};
    return found;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const char* const begin = reinterpret_cast<const char*>(data);
    const result whole = decompress(begin, size, size + 1, enough);
    for (const auto& [in, out] : {std::pair<std::size_t, std::size_t>{1, 1000}, {7, 4096}, {1000, 100}})
        require(agree(decompress(begin, size, in, out), whole));
    return 0;
}
