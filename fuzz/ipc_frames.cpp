// The reader of frames, which gets bytes in pieces of any size, beside a plain one that has all of them at once.
//
// The first byte decides how the rest is divided into pieces, and whether they are read to the reader's own memory.
#include "ipc/frame.h"

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

namespace {

constexpr uint32 longest_message = 5000;

struct result {
    std::vector<std::string> frames; // the kind as the first byte
    bool is_right = true;
    bool operator==(const result&) const = default;
};

void add(result& to, unsigned kind, std::string_view bytes) {
    std::string& made = to.frames.emplace_back(1, static_cast<char>(kind));
    made.append(bytes);
}

result read_plainly(std::string_view bytes) {
    result out;
    const auto number_at = [&](std::size_t place) {
        std::uint32_t value = 0;
        for (std::size_t i = 4; i-- != 0;)
            value = value * 256 + static_cast<unsigned char>(bytes[place + i]);
        return value;
    };
    while (bytes.size() >= 8) {
        const std::uint32_t length = number_at(0);
        const std::uint32_t kind = number_at(4);
        const std::uint32_t most[] = {longest_message, 0, 0, 0, 16, 4};
        if (kind > 5 || length > most[kind] || (kind != 0 && length != most[kind])) {
            out.is_right = false;
            break;
        }
        if (bytes.size() - 8 < length)
            break;
        add(out, kind, bytes.substr(8, length));
        bytes.remove_prefix(8 + length);
    }
    return out;
}

result read_in_pieces(std::string_view bytes, unsigned seed) {
    result out;
    qor::ipc::frame_reader reader(longest_message);
    const auto take = [&](const qor::ipc::frame& what) {
        add(out, static_cast<unsigned>(what.kind), {what.length != 0 ? what.bytes : "", what.length});
        return true;
    };
    while (!bytes.empty() && out.is_right) {
        seed = seed * 1103515245 + 12345;
        std::size_t part = std::min<std::size_t>(bytes.size(), 1 + (seed >> 16) % (seed % 3 == 0 ? 4000 : 11));
        std::size_t room = 0;
        char* const to = reader.room(room);
        if (room != 0 && seed % 2 == 0) {
            part = std::min(part, room);
            std::memcpy(to, bytes.data(), part);
            reader.added(part, take);
        } else {
            out.is_right = reader.feed(bytes.data(), part, take);
        }
        // What is held is at most twice what has arrived, and never more than the message.
        if (reader.held() > 2 * longest_message)
            std::abort();
        bytes.remove_prefix(part);
    }
    return out;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0)
        return 0;
    const std::string_view bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
    const result expected = read_plainly(bytes);
    for (unsigned seed = data[0]; seed < data[0] + 4u; ++seed)
        if (read_in_pieces(bytes, seed) != expected)
            std::abort();
    if (bytes.size() >= qor::ipc::hello_size) {
        qor::ipc::hello out{};
        char again[qor::ipc::hello_size];
        if (qor::ipc::read_hello(bytes.data(), out)) {
            qor::ipc::write_hello(again, out);
            if (bytes.substr(0, sizeof again) != std::string_view(again, sizeof again))
                std::abort();
        }
    }
    return 0;
}
