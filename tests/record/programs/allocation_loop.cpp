// Allocates and releases, 11 frames deep, with a thousand blocks alive in each thread.
//
//     allocation_loop CALLS [THREADS]
//
// CALLS counts the allocations and releases of all threads. At the end, the program writes its largest resident size in
// bytes to the file $PEAK.
#include <array>
#include <cstddef>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

namespace {

struct numbers {
    unsigned state;
    unsigned operator()() { return state = state * 1103515245 + 12345; }
};

template <int Depth>
[[gnu::noinline]] char* allocate(std::size_t size) {
    char* volatile block;
    if constexpr (Depth == 0) {
        block = new char[size];
    } else {
        block = allocate<Depth - 1>(size);
    }
    return block;
}

// Its callers are run, main and three frames of the program's start, or the frames of a thread's start.
[[gnu::noinline]] void work(long rounds, unsigned seed) {
    std::array<char*, 1000> blocks{};
    numbers next{seed};
    for (long i = 0; i < rounds; ++i) {
        char*& block = blocks[(next() >> 8) % blocks.size()];
        std::size_t size = 16 + (next() >> 16) % 200;
        delete[] block;
        block = allocate<4>(size);
    }
    for (char* block : blocks) {
        delete[] block;
    }
}

void tell_peak() {
    const char* name = std::getenv("PEAK");
    if (name == nullptr) {
        return;
    }
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with("VmHWM:")) {
            std::ofstream(name) << std::stol(line.substr(6)) * 1024 << '\n';
        }
    }
}

[[gnu::noinline]] void run(long rounds, int threads) {
    if (threads <= 1) {
        work(rounds, 1);
        return;
    }
    std::vector<std::thread> workers;
    for (int i = 0; i < threads; ++i) {
        workers.emplace_back(work, rounds / threads, static_cast<unsigned>(i + 1));
    }
    for (std::thread& worker : workers) {
        worker.join();
    }
}

} // namespace

int main(int count, char** words) {
    long rounds = (count > 1 ? std::atol(words[1]) : 1'000'000) / 2;
    run(rounds, count > 2 ? std::atoi(words[2]) : 1);
    tell_peak();
}
