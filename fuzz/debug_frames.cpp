// The frames of debug control and the pages of names, beside plain loops. The first byte of an input says how long its
// pieces are.
#include "channel/debug_frames.h"

#include <cstdint>
#include <cstdlib>

namespace {

using namespace qor::control;

void require(bool agreed) {
    if (!agreed)
        std::abort();
}

unsigned at(const std::string& bytes, std::size_t index) { return static_cast<unsigned char>(bytes[index]); }

// All frames at the front of the bytes as they lie there, and whether what follows is malformed.
std::string plain_frames(const std::string& bytes, bool& malformed) {
    std::size_t begin = 0;
    malformed = false;
    while (bytes.size() - begin >= 12) {
        const std::size_t size = at(bytes, begin) * 16777216ul + at(bytes, begin + 1) * 65536ul +
                                 at(bytes, begin + 2) * 256ul + at(bytes, begin + 3);
        malformed = size > 2048 || bytes[begin + 6] != 0 || bytes[begin + 7] != 0;
        if (malformed || bytes.size() - begin - 12 < size)
            break;
        begin += 12 + size;
    }
    return bytes.substr(0, begin);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0)
        return 0;
    const std::size_t piece = 1u + data[0];
    const std::string bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
    bool malformed;
    const std::string expected = plain_frames(bytes, malformed);

    frame_reader reader;
    std::string seen;
    bool refused = false;
    for (std::size_t begin = 0; begin < bytes.size() && !refused; begin += piece) {
        reader.add(std::string_view(bytes).substr(begin, piece));
        frame found;
        frame_reader::result result;
        while ((result = reader.next(found)) == frame_reader::result::frame)
            append_frame(seen, found.type, found.request, found.payload);
        refused = result == frame_reader::result::malformed;
    }
    require(seen == expected && refused == malformed);
    require(refused || reader.is_within() == (seen.size() != bytes.size()));

    // A page that is one is the same when it is written again.
    name_page page;
    if (read_page(bytes, page)) {
        std::string again = empty_page();
        set_next(again, page.next);
        bool fits = true;
        for (const std::string& name : page.names)
            fits = fits && append_name(again, name);
        require(!fits || again == bytes);
    }
    return 0;
}
