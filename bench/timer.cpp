// Measures timers: setting up and cancelling beside 100,000 pending ones and beside 1,000, how late calls come, and
// how often the thread wakes up while nothing is due.
//
//   timer_bench [--brief]
//
// Prints medians. The exit code is 1 if 100 times as many pending timers make setting up and cancelling more than
// limit times as dear, or if the thread wakes up at rest. A brief run fails by no figure.
#include "qor/qor.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

using namespace std::chrono_literals;

constexpr double growth_limit = 5; // the logarithm grows by 1.7; the rest is the processor's cache

double median(std::vector<double> all) {
    std::nth_element(all.begin(), all.begin() + static_cast<std::ptrdiff_t>(all.size() / 2), all.end());
    return all[all.size() / 2];
}

void nothing(void*, const qorTimerTick&) noexcept {}

qorTimerId set_up(std::mt19937_64& random) {
    qorTimerId id = 0;
    const qorTimerTimes times = {.delay = qorTicks(1h) + random() % qorTicks(1h)};
    if (!qorSetupTimer(nothing, nullptr, times, &id))
        std::abort();
    return id;
}

// Nanoseconds for a timer that is set up and cancelled, while `pending` others wait.
double cost(std::size_t pending, int times) {
    std::mt19937_64 random(1);
    std::vector<qorTimerId> waiting;
    for (std::size_t i = 0; i < pending; ++i)
        waiting.push_back(set_up(random));
    std::vector<double> rounds;
    for (int round = 0; round < 15; ++round) {
        const auto begin = std::chrono::steady_clock::now();
        for (int i = 0; i < times; ++i) {
            qorTimerId& replaced = waiting[random() % pending];
            qorCancelTimer(replaced);
            replaced = set_up(random);
        }
        rounds.push_back(std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - begin).count() /
                         times);
    }
    for (const qorTimerId each : waiting)
        qorCancelTimer(each);
    return median(rounds);
}

void print_lateness(std::size_t count) {
    std::vector<double> late;
    late.reserve(count);
    qorGate done(false);
    qorTimer timer;
    const auto note = [&](const qorTimerTick& tick) {
        if (late.size() < count)
            late.push_back(static_cast<double>(qorGetTickCounter() - tick.due) / 10);
        if (late.size() == count)
            done.Open();
    };
    if (!timer.Every(5ms, note))
        std::abort();
    done.Wait();
    timer.Cancel();
    std::sort(late.begin(), late.end());
    std::printf("lateness at rest, median   %8.1f us\n", late[late.size() / 2]);
    std::printf("lateness at rest, 99 in 100%8.1f us\n", late[late.size() * 99 / 100]);
}

// How often the other threads have gone to sleep.
long sleeps() {
    long sum = 0;
    for (const auto& each : std::filesystem::directory_iterator("/proc/self/task")) {
        if (each.path().filename() == std::to_string(getpid()))
            continue;
        std::ifstream status(each.path() / "status");
        for (std::string line; std::getline(status, line);)
            if (line.starts_with("voluntary_ctxt_switches:"))
                sum += std::stol(line.substr(24));
    }
    return sum;
}

} // namespace

int main(int argc, char** argv) {
    const bool brief = argc == 2 && std::strcmp(argv[1], "--brief") == 0;
    if (argc > 1 && !brief) {
        std::fputs("usage: timer_bench [--brief]\n", stderr);
        return 2;
    }
    const int times = brief ? 500 : 20'000;
    const double few = cost(1'000, times);
    const double many = cost(brief ? 10'000 : 100'000, times);
    std::printf("set up and cancel, few     %8.1f ns\n", few);
    std::printf("set up and cancel, many    %8.1f ns\n", many);
    std::printf("many / few                 %8.2f (at most %.0f)\n", many / few, growth_limit);
    print_lateness(brief ? 20 : 1'000);
    std::mt19937_64 random(1);
    std::vector<qorTimerId> waiting;
    for (int i = 0; i < 100'000; ++i)
        waiting.push_back(set_up(random));
    qorSleep(100);
    const long before = sleeps();
    qorSleep(brief ? 100 : 5'000);
    const long woken = sleeps() - before;
    std::printf("wake-ups at rest           %8ld (0)\n", woken);
    for (const qorTimerId each : waiting)
        qorCancelTimer(each);
    return brief || (many / few <= growth_limit && woken == 0) ? 0 : 1;
}
