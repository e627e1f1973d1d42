// Leaks in a library that a program loads while it runs, and may unload before the leaks are reported.
#include <memory>

namespace {

struct plugin_state {
    char text[3000];
};

[[gnu::noinline]] void remember(plugin_state* volatile* place) {
    *place = new plugin_state; // library
}

} // namespace

extern "C" [[gnu::visibility("default")]] void leak_in_library(void* volatile* place) {
    plugin_state* volatile state;
    remember(&state);
    *place = state;
    *place = nullptr;
}
