// Leaks of C++; the environment variable PLANTED chooses one, so that the constructor of a global object can read it.
// The line of a leak ends with its word as a comment. If the C++ library allocates, it is the line that calls the
// library.
#include <array>
#include <coroutine>
#include <csignal>
#include <cstdlib>
#include <dlfcn.h>
#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#define OWN_FRAME [[gnu::noinline]]

namespace {

// Keeps the compiler from removing unused allocations and from turning calls into jumps.
void* volatile planted;

void lose(void* block) {
    planted = block;
    planted = nullptr;
}

std::string_view wanted() {
    const char* word = std::getenv("PLANTED");
    return word != nullptr ? word : "";
}

// ---- before main

struct global_object {
    explicit global_object(std::size_t size) : text(new char[size]) {} // global_constructor
    char* text;
};

struct global_holder {
    global_holder() {
        if (wanted() == "global_constructor") {
            global_object object(1234);
            lose(object.text);
        }
    }
} holder;

// ---- operators

OWN_FRAME void new_array() {
    lose(new std::array<char, 40>[100]); // new_array
}

struct alignas(256) aligned {
    char bytes[1024];
};

OWN_FRAME void aligned_new() {
    lose(new aligned); // aligned_new
}

// ---- containers and templates

OWN_FRAME void vector() {
    auto* numbers = new std::vector<int>; // vector
    for (int i = 0; i < 1000; ++i) {
        numbers->push_back(i); // the memory of its elements
    }
    lose(numbers);
}

template <typename Container, typename Key>
OWN_FRAME void fill(Container& container, Key last) {
    for (Key key{}; key < last; ++key) {
        container[key] = {}; // map_in_template
    }
}

OWN_FRAME void map_in_template() {
    auto* map = new std::map<int, std::array<char, 500>>; // the map
    fill(*map, 7);
    lose(map);
}

OWN_FRAME void string() {
    auto* text = new std::string(900, 'x'); // string
    lose(text);
}

// ---- inlined functions

[[gnu::always_inline]] inline void* innermost(std::size_t size) {
    return std::malloc(size); // inlined
}

[[gnu::always_inline]] inline void* inner(std::size_t size) { return innermost(size * 3); }

OWN_FRAME void inlined() { lose(inner(333)); }

// ---- function objects

template <typename Function>
OWN_FRAME void* call(Function function, std::size_t size) {
    void* block = function(size);
    planted = block;
    return block;
}

OWN_FRAME void lambda() {
    std::size_t more = 45;
    lose(call([more](std::size_t size) -> void* { return new char[size + more]; }, 2300)); // lambda
}

OWN_FRAME void function() {
    std::array<char, 64> large{'a'};
    auto* held = new std::function<char()>([large] { return large[0]; }); // function
    planted = reinterpret_cast<void*>(static_cast<std::uintptr_t>((*held)()));
    lose(held);
}

// ---- reference cycles

struct person {
    std::shared_ptr<person> friend_of;
    char name[300] = {};
};

OWN_FRAME void shared_pointer() {
    auto one = std::make_shared<person>(); // shared_pointer
    auto other = std::make_shared<person>();
    one->friend_of = other;
    other->friend_of = one;
}

// ---- coroutines

struct task {
    struct promise_type {
        task get_return_object() { return {std::coroutine_handle<promise_type>::from_promise(*this)}; }
        std::suspend_never initial_suspend() noexcept { return {}; }
        std::suspend_always final_suspend() noexcept { return {}; }
        void return_void() {}
        void unhandled_exception() { std::terminate(); }
    };
    std::coroutine_handle<promise_type> handle;
};

OWN_FRAME void allocate_for_a_coroutine(std::size_t size) {
    lose(new char[size + 1]); // coroutine
}

// The coroutine's frame leaks as well.
OWN_FRAME task wait_for_nobody(std::size_t size) {
    std::array<char, 200> kept{};
    planted = kept.data();
    co_await std::suspend_always{};
    allocate_for_a_coroutine(size + static_cast<std::size_t>(kept[0]));
    co_await std::suspend_always{};
    planted = kept.data();
}

OWN_FRAME void coroutine() {
    task waiting = wait_for_nobody(777);
    waiting.handle.resume();
    lose(nullptr);
}

// ---- threads

OWN_FRAME void work(std::size_t size) {
    lose(new char[size]); // thread
}

void thread() {
    std::thread worker([] { work(4321); });
    worker.join();
}

// ---- libraries

void* load() {
    void* library = dlopen("planted_library.so", RTLD_NOW);
    if (library == nullptr) {
        std::abort();
    }
    using function_type = void(void* volatile*);
    reinterpret_cast<function_type*>(dlsym(library, "leak_in_library"))(&planted);
    return library;
}

void library() { lose(load()); }

void unloaded_library() { dlclose(load()); }

// ---- exceptions

OWN_FRAME void fail(int number) {
    throw std::out_of_range(std::string(600, 'e') + std::to_string(number)); // exception
}

// The exception lives as long as its pointer, which leaks.
OWN_FRAME void exception() {
    try {
        fail(3);
    } catch (...) {
        lose(new std::exception_ptr(std::current_exception()));
    }
}

// ---- signals

OWN_FRAME void in_handler() {
    lose(std::malloc(5432)); // signal_handler
}

void handle(int) {
    in_handler();
    lose(nullptr);
}

// Runs on an alternate signal stack.
OWN_FRAME void signal_handler() {
    static char stack[1 << 16];
    stack_t alternate{};
    alternate.ss_sp = stack;
    alternate.ss_size = sizeof stack;
    sigaltstack(&alternate, nullptr);
    struct sigaction action {};
    action.sa_handler = handle;
    action.sa_flags = SA_ONSTACK;
    sigaction(SIGUSR1, &action, nullptr);
    std::raise(SIGUSR1);
    lose(nullptr);
}

struct plant {
    std::string_view name;
    void (*function)();
};

constexpr plant plants[] = {
    {"new_array", new_array},
    {"aligned_new", aligned_new},
    {"vector", vector},
    {"map_in_template", map_in_template},
    {"string", string},
    {"inlined", inlined},
    {"lambda", lambda},
    {"function", function},
    {"shared_pointer", shared_pointer},
    {"coroutine", coroutine},
    {"thread", thread},
    {"library", library},
    {"unloaded_library", unloaded_library},
    {"exception", exception},
    {"signal_handler", signal_handler},
};

} // namespace

int main() {
    if (wanted() == "global_constructor") {
        return 0;
    }
    for (const plant& each : plants) {
        if (each.name == wanted()) {
            each.function();
            return 0;
        }
    }
    return 2;
}
