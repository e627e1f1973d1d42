// The answer of a process that reads symbols, which a damaged file may have made do anything.
#include "heap/symbols/module_answer.h"

#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace qor::heap;
    if (size == 0)
        return 0;
    const std::size_t addresses = data[0];
    const std::string_view bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
    module_answer answer;
    if (!decode(bytes, addresses, answer))
        return 0;
    for (const auto& places : answer.places)
        for (const numbered_place& place : places)
            if (place.function >= answer.texts.size() || place.file >= answer.texts.size())
                std::abort();
    if (answer.places.size() != addresses || encoded(answer) != bytes)
        std::abort();
    return 0;
}
