// Loaded while a program runs: its imports are hooked then.
#include <cstdlib>

namespace {

void* volatile at_load;

// It works before the loading ends, and when the library or the process ends.
struct holder {
    holder() { at_load = std::malloc(71021); }
    ~holder() {
        std::free(at_load);
        for (int i = 0; i < allocations_at_end; ++i) {
            at_load = std::malloc(77);
            std::free(at_load);
        }
    }
    int allocations_at_end = 0;
} held;

} // namespace

extern "C" {

__declspec(dllexport) void* allocate_in_library(std::size_t size) {
    void* const block = std::malloc(size); // late_library
    at_load = at_load;                     // no tail call
    return block;
}

__declspec(dllexport) void allocate_at_end(int count) { held.allocations_at_end = count; }
}
