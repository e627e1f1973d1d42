// Compares a call through the binding with a direct one, and measures a trace scope that is switched off.
//
//   bound_call [--brief]
//
// Prints nanoseconds: medians of interleaved rounds. The exit code is 1 if the scope costs more than 3 ns even in its
// best round. A brief run never fails because of a figure, since other programs influence it too much.
#include "qor/qor.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <vector>

namespace {

constexpr double scope_limit = 3;

// Keeps the compiler from moving code across it: each pass must load, test and call again.
inline void fence() { asm volatile("" ::: "memory"); }
inline void use(const void* value) { asm volatile("" ::"r"(value) : "memory"); }

const qorDebugFlag s_flags[1] = {};

// Same work as the library's qorDebugGetFlags, but in this executable.
[[gnu::noinline]] const qorDebugFlag* direct() {
    fence();
    return s_flags;
}

uint32 s_code = 0;

struct measurement {
    const char* name;
    void (*run)(int times);
    std::vector<double> rounds{}; // nanoseconds per pass

    double median() {
        std::nth_element(rounds.begin(), rounds.begin() + rounds.size() / 2, rounds.end());
        return rounds[rounds.size() / 2];
    }
    double best() const { return *std::min_element(rounds.begin(), rounds.end()); }
};

void run_direct(int times) {
    for (int i = 0; i < times; ++i)
        use(direct());
}

void run_pointer(int times) {
    const qorDebugFlag* (*volatile pointer)() = direct;
    for (int i = 0; i < times; ++i)
        use(pointer());
}

void run_bound(int times) {
    for (int i = 0; i < times; ++i)
        use(qor::glue::qorDebugGetFlags());
}

void run_nothing(int times) {
    for (int i = 0; i < times; ++i)
        fence();
}

void run_scope(int times) {
    for (int i = 0; i < times; ++i) {
        const qorDebugSeq scope(s_code, "run_scope");
        fence();
    }
}

void measure(measurement& what, int times) {
    using clock = std::chrono::steady_clock;
    const auto begin = clock::now();
    what.run(times);
    what.rounds.push_back(std::chrono::duration<double, std::nano>(clock::now() - begin).count() / times);
}

} // namespace

int main(int argc, char** argv) {
    const bool brief = argc == 2 && std::strcmp(argv[1], "--brief") == 0;
    if (argc > 1 && !brief) {
        std::fputs("usage: bound_call [--brief]\n", stderr);
        return 2;
    }
    s_code = qorDebugAllocateCode("bench.bound_call"); // also binds

    measurement all[] = {{"direct call", run_direct},
                         {"call through a pointer", run_pointer},
                         {"bound call", run_bound},
                         {"nothing", run_nothing},
                         {"scope, switched off", run_scope}};
    auto& [plain, pointer, bound, nothing, scope] = all;
    const int times = brief ? 200'000 : 5'000'000;
    for (int round = brief ? 7 : 31; round > 0; --round)
        for (measurement& one : all)
            measure(one, times);

    for (measurement& one : all)
        std::printf("%-24s %6.2f ns\n", one.name, one.median());
    std::printf("bound / direct           %6.2f\n", bound.median() / plain.median());
    std::printf("bound / pointer          %6.2f\n", bound.median() / pointer.median());
    std::printf("scope - nothing          %6.2f ns (at most %.0f)\n", scope.median() - nothing.median(), scope_limit);
    return brief || scope.best() - nothing.best() <= scope_limit ? 0 : 1;
}
