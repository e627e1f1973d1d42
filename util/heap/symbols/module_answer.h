// A question about the addresses of one module, and the answer, which can travel between processes.
#pragma once

#include "heap/symbols/symbols.h"

#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace qor::heap {

struct module_request {
    std::string path;
    std::string build_id;          // raw bytes; empty: unknown
    uint64 recorded_ns = 0;        // since 1970; 0: unknown
    std::vector<uint64> addresses; // of code, in the file; ascending, each once
};

// A place with numbers of texts in the answer. Text 0 is empty.
struct numbered_place {
    uint32 function = 0;
    uint32 file = 0;
    uint32 line = 0;
};

class module_answer {
public:
    module_symbols about;
    std::vector<std::string> texts{std::string()};
    std::vector<std::vector<numbered_place>> places; // as many as there are addresses

    // The number of a text. Long ones are cut.
    uint32 number_of(std::string_view text);

    // Drops all places: nothing is known.
    void clear(std::size_t addresses);

    static constexpr std::size_t most_text = 16 * 1024;
    static constexpr std::size_t most_places = 256; // of an address

private:
    struct hash {
        using is_transparent = void;
        std::size_t operator()(std::string_view text) const noexcept { return std::hash<std::string_view>{}(text); }
    };
    std::unordered_map<std::string, uint32, hash, std::equal_to<>> m_numbers;
};

std::string encoded(const module_answer& answer);

// False: these bytes are no answer about so many addresses.
bool decode(std::string_view bytes, std::size_t addresses, module_answer& out);

} // namespace qor::heap
