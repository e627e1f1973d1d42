// Compares the start of a program from a process with 4 GiB of memory with posix_spawn.
//
//   child_process_bench [--brief]
//
// Both start /bin/true and wait for its end, in turn; medians. The exit code is 1 if qorCreateChildProcess takes more
// than 1.2 times as long. A brief run uses less memory and fails by no figure.
#include "qor/qor.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr double limit = 1.2;
char program[] = "/bin/true";

void start_ours() {
    qorStringArray words;
    words.Append(program);
    zetSmartPointer<IQORChildProcess> child;
    qorChildEnd end;
    if (!qorCreateChildProcess({.arguments = &words}, child.Out()) || !child->Wait(end) || !end.IsSuccess())
        std::abort();
}

void start_theirs() {
    char* words[] = {program, nullptr};
    pid_t child;
    int status;
    if (posix_spawn(&child, program, nullptr, nullptr, words, environ) != 0 || waitpid(child, &status, 0) != child ||
        status != 0)
        std::abort();
}

struct measurement {
    const char* name;
    void (*run)();
    std::vector<double> rounds{}; // microseconds

    double median() {
        std::sort(rounds.begin(), rounds.end());
        return rounds[rounds.size() / 2];
    }
};

} // namespace

int main(int argc, char** argv) {
    const bool brief = argc == 2 && std::strcmp(argv[1], "--brief") == 0;
    if (argc > 1 && !brief) {
        std::fputs("usage: child_process_bench [--brief]\n", stderr);
        return 2;
    }
    const std::size_t size = brief ? std::size_t{64} << 20 : std::size_t{4} << 30;
    void* const memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_POPULATE, -1, 0);
    if (memory == MAP_FAILED) {
        std::perror("4 GiB");
        return 2;
    }
    measurement all[] = {{"qorCreateChildProcess", start_ours}, {"posix_spawn", start_theirs}};
    for (int round = 0; round < (brief ? 10 : 500); ++round)
        for (measurement& each : all) {
            const auto begin = std::chrono::steady_clock::now();
            each.run();
            each.rounds.push_back(
                std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - begin).count());
        }
    for (measurement& each : all)
        std::printf("%-24s %8.1f us\n", each.name, each.median());
    const double ratio = all[0].median() / all[1].median();
    std::printf("ratio                    %8.2f (at most %.1f)\n", ratio, limit);
    return brief || ratio <= limit ? 0 : 1;
}
