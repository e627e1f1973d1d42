// Leaks of C++. The line of a leak ends with its word as a comment, and each is told on standard output.
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>
#include <windows.h>

#define OWN_FRAME [[gnu::noinline]]

namespace {

void* volatile place;

OWN_FRAME void lose(const char* name, void* block, std::size_t size) {
    place = block;
    place = nullptr;
    std::printf("%s %p %u\n", name, block, static_cast<unsigned>(size));
}

OWN_FRAME void plain() {
    lose("plain", std::malloc(71001), 71001); // plain
}

OWN_FRAME void array() {
    lose("array", new char[71002], 71002); // array
}

[[gnu::always_inline]] inline void* innermost(std::size_t size) {
    return std::malloc(size); // inlined
}

[[gnu::always_inline]] inline void* inner(std::size_t size) { return innermost(size + 3); }

OWN_FRAME void inlined() { lose("inlined", inner(71000), 71003); }

struct alignas(64) large {
    char bytes[71040];
};

OWN_FRAME void work(std::size_t size) {
    lose("thread", std::malloc(size), size); // thread
}

OWN_FRAME void text() {
    auto* const held = new std::string(71005, 'x'); // text
    lose("text", held->data(), 71006);
}

using allocator = void*(std::size_t);

allocator* find(HMODULE library, const char* name) {
    return reinterpret_cast<allocator*>(reinterpret_cast<void*>(GetProcAddress(library, name)));
}

OWN_FRAME void by_address() {
    allocator* const function = find(GetModuleHandleW(L"msvcrt.dll"), "malloc");
    lose("by_address", function(71007), 71007); // by_address
}

void late_library(bool stays) {
    const HMODULE library = LoadLibraryW(L"late_library.dll");
    if (library == nullptr)
        std::abort();
    const std::size_t size = stays ? 71009 : 71008;
    lose("late_library", find(library, "allocate_in_library")(size), size);
    if (!stays)
        FreeLibrary(library);
}

void harmless() {
    std::map<int, std::unique_ptr<large>> map;
    for (int i = 0; i < 100; ++i)
        map[i] = std::make_unique<large>();
    std::vector<std::string> texts(1000, std::string(100, 'c'));
    place = texts.data();
}

} // namespace

int main() {
    plain();
    array();
    inlined();
    std::thread([] { work(71004); }).join();
    text();
    by_address();
    late_library(false);
    harmless();
    late_library(true);
    return 42;
}
