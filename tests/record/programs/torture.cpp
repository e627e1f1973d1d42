//     torture SECONDS PAUSE
//
// Does everything at once, with pauses of PAUSE microseconds: loads and unloads libraries, throws exceptions, begins
// and ends threads, allocates in the handler of a profiling signal, forks, and starts programs. The signal also
// interrupts allocation functions, so an allocator that allows that has to be preloaded.
//
// Each kind of work leaks `lost_blocks` blocks of its own size and releases all others.
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <spawn.h>
#include <stdexcept>
#include <string>
#include <sys/time.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

extern char** environ;

namespace {

constexpr int lost_blocks = 50;
constexpr std::size_t lost_by_handler = 71001;
constexpr std::size_t lost_by_thrower = 71002;
constexpr std::size_t lost_by_worker = 71003;
constexpr std::size_t lost_by_library_one = 71004;
constexpr std::size_t lost_by_library_two = 71005;
constexpr std::size_t lost_by_child = 72001;

std::atomic<bool> ended;
std::chrono::microseconds pause_time{0};
void* volatile place;

[[gnu::noinline]] void lose(std::size_t size) {
    place = std::malloc(size);
    place = nullptr;
}

// ---- the profiling signal: its handler allocates blocks, which a later run of it releases on any thread

std::atomic<void*> kept[64];
std::atomic<unsigned> signals;

void handle(int) {
    int error = errno;
    unsigned number = signals.fetch_add(1);
    void* block = std::malloc(number * 37 % 3000);
    block = std::realloc(block, number * 61 % 5000 + 1);
    std::free(kept[number % 64].exchange(block));
    if (number < lost_blocks) {
        lose(lost_by_handler);
    }
    errno = error;
}

void profile(bool on) {
    itimerval timer{};
    timer.it_interval.tv_usec = timer.it_value.tv_usec = on ? 1000 : 0;
    setitimer(ITIMER_PROF, &timer, nullptr);
}

// ---- libraries

void use_library(const char* path, const char* function, std::size_t lost) {
    void* library = dlopen(path, RTLD_NOW);
    if (library == nullptr) {
        std::fprintf(stderr, "%s\n", dlerror());
        std::abort();
    }
    reinterpret_cast<void (*)(std::size_t)>(dlsym(library, function))(lost);
    dlclose(library);
}

void load_libraries() {
    for (int i = 0; !ended || i < lost_blocks; ++i) {
        use_library("torture_library_one.so", "work_of_one", i < lost_blocks ? lost_by_library_one : 0);
        use_library("torture_library_two.so", "work_of_two", i < lost_blocks ? lost_by_library_two : 0);
        std::this_thread::sleep_for(pause_time);
    }
}

// ---- exceptions

[[gnu::noinline]] std::string descend(int depth) {
    std::string text(static_cast<std::size_t>(depth) * 20, 'd');
    if (depth == 0) {
        throw std::runtime_error("a text that is too long for the string itself " + std::to_string(signals));
    }
    return descend(depth - 1) + text;
}

void throw_exceptions() {
    for (int i = 0; !ended || i < lost_blocks; ++i) {
        try {
            descend(i % 30);
        } catch (const std::exception& error) {
            std::string copy = error.what();
            place = copy.data();
        }
        if (i < lost_blocks) {
            lose(lost_by_thrower);
        }
        std::this_thread::sleep_for(pause_time);
    }
}

// ---- threads

thread_local std::string of_thread;

[[gnu::noinline]] void work(bool loses) {
    of_thread.assign(1000, 't'); // released by the end of the thread
    std::vector<std::string> texts(20, std::string(100, 'w'));
    if (loses) {
        lose(lost_by_worker);
    }
    place = texts.data();
}

void churn_threads() {
    for (int i = 0; !ended || i < lost_blocks; ++i) {
        std::thread one(work, i < lost_blocks), other(work, false);
        one.join();
        other.join();
        std::this_thread::sleep_for(pause_time);
    }
}

// ---- forked children that allocate, and started programs

void wait_for(pid_t child) {
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        std::fprintf(stderr, "a child ended with the status %#x\n", static_cast<unsigned>(status));
        std::abort();
    }
}

int fork_children() {
    int children = 0;
    while (!ended || children == 0) {
        pid_t child = fork();
        if (child == 0) {
            std::vector<std::string> texts(50, std::string(100, 'c'));
            place = texts.data();
            lose(lost_by_child);
            texts = {};
            _exit(0);
        }
        ++children;
        wait_for(child);
        char program[] = "/bin/true";
        char* words[] = {program, nullptr};
        if (posix_spawn(&child, program, nullptr, nullptr, words, environ) == 0) {
            wait_for(child);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
    return children;
}

} // namespace

int main(int count, char** words) {
    int seconds = count > 1 ? std::atoi(words[1]) : 1;
    pause_time = std::chrono::microseconds(count > 2 ? std::atoi(words[2]) : 0);
    struct sigaction action {};
    action.sa_handler = handle;
    action.sa_flags = SA_RESTART;
    sigaction(SIGPROF, &action, nullptr);
    profile(true);
    int children = 0;
    std::vector<std::thread> threads;
    threads.emplace_back(load_libraries);
    threads.emplace_back(throw_exceptions);
    threads.emplace_back(throw_exceptions);
    threads.emplace_back(churn_threads);
    threads.emplace_back([&children] { children = fork_children(); });
    for (auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
         std::chrono::steady_clock::now() < end || signals < lost_blocks;) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ended = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
    profile(false);
    signal(SIGPROF, SIG_IGN);
    for (auto& block : kept) {
        std::free(block.exchange(nullptr));
    }
    std::printf("%d children, %u signals\n", children, signals.load());
    return 0;
}
