// Loaded while a program runs: its imports are hooked then.
#include <cstdlib>

namespace {

[[gnu::noinline]] void* allocate(std::size_t size) {
    return std::malloc(size); // late_library
}

void* volatile at_load;

// Runs before the loading ends.
const struct holder {
    holder() { at_load = std::malloc(71021); }
    ~holder() { std::free(at_load); }
} held;

} // namespace

extern "C" __declspec(dllexport) void* allocate_in_library(std::size_t size) {
    void* const block = allocate(size);
    at_load = at_load; // no tail call
    return block;
}
