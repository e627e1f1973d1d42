// Measures an allocation with its release in nanoseconds of processor time, for allocation_log.py.
//
//     allocation_cost malloc|framework COUNT [framework options]
//
// Blocks have the sizes of everyday objects and live for a while; those of the framework go through the bound table, as
// in every client.
#include "qor/qor.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace {

constexpr std::size_t live = 1000;

void* blocks[live];

template <class ALLOCATE, class FREE>
double nanoseconds(unsigned long count, ALLOCATE allocate, FREE give_back) {
    uint32 random = 4711;
    const std::clock_t begin = std::clock();
    for (unsigned long i = 0; i < count; ++i) {
        random = random * 1664525 + 1013904223;
        void*& block = blocks[(random >> 8) % live];
        give_back(block);
        block = allocate(16 + (random >> 20) % 256);
    }
    const std::clock_t end = std::clock();
    for (void*& block : blocks) {
        give_back(block);
        block = nullptr;
    }
    return 1e9 / CLOCKS_PER_SEC * static_cast<double>(end - begin) / static_cast<double>(count);
}

} // namespace

int main(int argc, char** argv) {
    static constexpr char source[] = "bench/allocation_cost";
    qorStringArray args;
    args.SetFromArgVec(argc, argv);
    if (!qorInitProcess("allocation_cost", args, 0) || args.GetCount() != 2) {
        std::fprintf(stderr, "usage: allocation_cost malloc|framework COUNT [framework options]\n");
        return 2;
    }
    const unsigned long count = std::strtoul(args[1], nullptr, 10);
    const bool plain = std::strcmp(args[0], "malloc") == 0;
    for (const unsigned long rounds : {count / 10, count}) // the first warms up
        std::printf("%.2f\n", plain ? nanoseconds(rounds, std::malloc, std::free)
                                    : nanoseconds(
                                          rounds, [](uint64 size) { return qor_do_malloc(0, size, true, source, 1); },
                                          [](void* block) { qor_do_free(block, source, 2); }));
    qorCleanup();
    return 0;
}
