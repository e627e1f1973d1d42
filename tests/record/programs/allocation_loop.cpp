// Allocates and releases, 11 frames deep, with a thousand blocks alive in each thread.
//
//     allocation_loop CALLS [THREADS]
//
// CALLS is the number of allocations and releases together, of all threads.
#include <array>
#include <cstddef>
#include <cstdlib>
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

// Its own callers are main with the three frames of the start, or the four of a thread.
[[gnu::noinline]] void work(long rounds, unsigned seed) {
    std::array<char*, 1000> blocks{};
    numbers next{seed};
    for (long i = 0; i < rounds; ++i) {
        char*& block = blocks[(next() >> 8) % blocks.size()];
        std::size_t size = 16 + (next() >> 16) % 200;
        delete[] block;
        block = allocate<5>(size);
    }
    for (char* block : blocks) {
        delete[] block;
    }
}

} // namespace

int main(int count, char** words) {
    long rounds = (count > 1 ? std::atol(words[1]) : 1'000'000) / 2;
    int threads = count > 2 ? std::atoi(words[2]) : 1;
    if (threads <= 1) {
        work(rounds, 1);
        return 0;
    }
    std::vector<std::thread> workers;
    for (int i = 0; i < threads; ++i) {
        workers.emplace_back(work, rounds / threads, static_cast<unsigned>(i + 1));
    }
    for (std::thread& worker : workers) {
        worker.join();
    }
}
