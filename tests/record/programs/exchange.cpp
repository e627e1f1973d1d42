// Threads that release each other's blocks: exchange THREADS ROUNDS. Each round of a thread is an allocation and, once
// the places are full, a release.
#include <atomic>
#include <cstdlib>
#include <thread>
#include <vector>

namespace {

constexpr unsigned place_count = 4096;
std::atomic<void*> places[place_count];

void exchange(unsigned seed, long rounds) {
    for (long i = 0; i < rounds; ++i) {
        seed = seed * 1103515245 + 12345;
        void* const block =
            i % 7 == 0 ? std::realloc(std::malloc(16 + (seed >> 16) % 64), 200) : std::malloc(16 + (seed >> 16) % 200);
        std::free(places[(seed >> 8) % place_count].exchange(block));
    }
}

} // namespace

int main(int, char** argv) {
    const unsigned count = static_cast<unsigned>(std::atoi(argv[1]));
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < count; ++i)
        threads.emplace_back(exchange, i + 1, std::atol(argv[2]));
    for (std::thread& each : threads)
        each.join();
    for (auto& each : places)
        std::free(each.load());
}
