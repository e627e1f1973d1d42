// The stack of 11 frames by the recorder's unwinder, beside frame pointers, libunwind and the compiler's run-time.
//
//   unwind_bench [--brief]
//
// Prints nanoseconds for a stack: medians of interleaved rounds. All of them must find the same frames. The exit code
// is 1 if the unwinder takes more than a quarter of the compiler's run-time; a brief run fails by no figure.
#include "qor-record/preload/unwind.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <dlfcn.h>
#include <execinfo.h>
#include <vector>

namespace {

constexpr unsigned levels = 11;
constexpr double limit = 0.25;

inline void use(const void* value) { asm volatile("" ::"r"(value) : "memory"); }

// The frames of a thread: the outermost of these functions, and what the system has above it, are cut off.
struct way {
    const char* name;
    unsigned (*walk)(std::uintptr_t* frames); // from the caller of the function up
    std::vector<double> rounds{};

    double median() {
        std::nth_element(rounds.begin(), rounds.begin() + rounds.size() / 2, rounds.end());
        return rounds[rounds.size() / 2];
    }
};

[[gnu::noinline]] unsigned by_rules(std::uintptr_t* frames) {
    return qor::record::unwind(qor::record::capture_context(), frames, levels);
}

[[gnu::noinline]] unsigned by_frame_pointers(std::uintptr_t* frames) {
    const auto* frame = static_cast<const std::uintptr_t*>(__builtin_frame_address(0));
    for (unsigned i = 0; i < levels; ++i) {
        frames[i] = frame[1];
        frame = reinterpret_cast<const std::uintptr_t*>(frame[0]);
    }
    return levels;
}

// Without the first, which is here.
unsigned without_first(void* const* found, int count, std::uintptr_t* frames) {
    for (int i = 1; i < count; ++i)
        frames[i - 1] = reinterpret_cast<std::uintptr_t>(found[i]);
    return count > 0 ? static_cast<unsigned>(count - 1) : 0;
}

[[gnu::noinline]] unsigned by_run_time(std::uintptr_t* frames) {
    void* found[levels + 1];
    return without_first(found, backtrace(found, levels + 1), frames);
}

int (*libunwind)(void**, int) = nullptr;

[[gnu::noinline]] unsigned by_libunwind(std::uintptr_t* frames) {
    void* found[levels + 1];
    return without_first(found, libunwind(found, levels + 1), frames);
}

std::vector<way> ways{{"the recorder's unwinder", &by_rules},
                      {"frame pointers", &by_frame_pointers},
                      {"the compiler's run-time", &by_run_time}};

int measure(bool brief) {
    const unsigned times = brief ? 1000 : 100000;
    std::uintptr_t expected[levels];
    for (way& each : ways) {
        std::uintptr_t frames[levels];
        const bool first = &each == ways.data();
        // The innermost is the call here, which is another in each round of the loop only if the compiler unrolls it.
        if (each.walk(frames) != levels || (!first && std::memcmp(frames, expected, sizeof frames) != 0)) {
            std::printf("%s finds other frames\n", each.name);
            return 1;
        }
        std::memcpy(expected, frames, sizeof frames);
    }
    for (unsigned round = 0; round < (brief ? 3 : 15); ++round)
        for (way& each : ways) {
            std::uintptr_t frames[levels];
            const auto begin = std::chrono::steady_clock::now();
            for (unsigned i = 0; i < times; ++i) {
                each.walk(frames);
                use(frames);
            }
            const std::chrono::duration<double, std::nano> taken = std::chrono::steady_clock::now() - begin;
            each.rounds.push_back(taken.count() / times);
        }
    for (way& each : ways)
        std::printf("%-24s %8.1f ns\n", each.name, each.median());
    return !brief && ways[0].median() > limit * ways[2].median();
}

[[gnu::noinline]] int descend(unsigned more, bool brief) {
    unsigned kept[4] = {more, more, more, more};
    use(kept);
    const int result = more != 0 ? descend(more - 1, brief) : measure(brief);
    use(kept);
    return result;
}

} // namespace

int main(int count, char** words) {
    qor::record::prepare_unwinder();
    if (void* const library = dlopen("libunwind.so.8", RTLD_NOW)) {
        libunwind = reinterpret_cast<int (*)(void**, int)>(dlsym(library, "unw_backtrace"));
        if (libunwind != nullptr)
            ways.push_back({"libunwind", &by_libunwind});
    }
    return descend(levels, count > 1 && std::strcmp(words[1], "--brief") == 0);
}
