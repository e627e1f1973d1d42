// What may trouble a recorder on Windows. The first word says which.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iterator>
#include <process.h>
#include <string>
#include <thread>
#include <utility>
#include <vector>
#include <windows.h>

namespace {

std::atomic<void*> place;

// Blocks go from thread to thread: each is made by one and often released by another.
void churn(std::atomic<void*>* blocks, std::size_t count, unsigned seed, long rounds) {
    for (long i = 0; i < rounds; ++i) {
        seed = seed * 1664525 + 1013904223;
        std::free(blocks[seed / 65536 % count].exchange(std::malloc(seed % 300 + 1)));
    }
}

// The allocations that were made, and what is left.
int exchange(unsigned threads, long rounds) {
    static std::atomic<void*> blocks[64];
    std::vector<std::thread> workers;
    for (unsigned i = 0; i < threads; ++i)
        workers.emplace_back(churn, blocks, std::size(blocks), i, rounds);
    for (std::thread& each : workers)
        each.join();
    std::printf("%ld\n", threads * rounds);
    for (const auto& each : blocks)
        if (each.load() != nullptr)
            std::printf("%p\n", each.load());
    return 0;
}

// Allocates until the process ends, in a heap of its own without a lock: Wine 8 does not stop spinning at the end of a
// process if a thread is ended in the instant in which it wakes another one, and threads of one heap do so all the
// time.
void churn_alone(std::atomic<int>& working) {
    void* blocks[64]{};
    const HANDLE heap = HeapCreate(HEAP_NO_SERIALIZE, 0, 0);
    for (unsigned i = 0, seed = 1;; ++i) {
        seed = seed * 1664525 + 1013904223;
        void*& block = blocks[seed / 65536 % std::size(blocks)];
        if (block != nullptr)
            HeapFree(heap, 0, block);
        block = HeapAlloc(heap, 0, seed % 300 + 1);
        if (i == 1000)
            ++working;
    }
}

// The process ends while the others are at work. A library goes on to allocate when they have been ended.
int end_at_work(bool by_system, int at_the_end) {
    static std::atomic<int> working;
    constexpr int threads = 3;
    if (at_the_end != 0) {
        const FARPROC function = GetProcAddress(LoadLibraryW(L"late_library.dll"), "allocate_at_end");
        reinterpret_cast<void (*)(int)>(reinterpret_cast<void*>(function))(at_the_end);
    }
    for (int i = 0; i < threads; ++i)
        std::thread(churn_alone, std::ref(working)).detach();
    while (working < threads)
        Sleep(1);
    Sleep(10);
    if (by_system)
        ExitProcess(5);
    std::exit(5);
}

// A program that is started in each way that the run-times and the system have.
int start(const char* how, wchar_t** words) {
    const std::wstring self = words[0];
    const std::wstring line = L'"' + self + L"\" lose 71201";
    std::free(place = std::malloc(500));
    if (std::strcmp(how, "spawn") == 0) {
        return static_cast<int>(_wspawnl(_P_WAIT, self.c_str(), L"troubles", L"lose", L"71201", nullptr));
    }
    if (std::strcmp(how, "system") == 0)
        return _wsystem((L'"' + line + L'"').c_str());
    STARTUPINFOW about{};
    about.cb = sizeof about;
    PROCESS_INFORMATION started;
    std::wstring copy = line;
    const bool is_held = std::strcmp(how, "held") == 0;
    if (!CreateProcessW(nullptr, copy.data(), nullptr, nullptr, FALSE, is_held ? CREATE_SUSPENDED : 0, nullptr, nullptr,
                        &about, &started))
        return 99;
    if (is_held)
        ResumeThread(started.hThread);
    if (std::strcmp(how, "leave") == 0)
        return 0;
    WaitForSingleObject(started.hProcess, INFINITE);
    DWORD code = 98;
    GetExitCodeProcess(started.hProcess, &code);
    return static_cast<int>(code);
}

// Allocates one block of a size for each line that is read.
int be_controlled() {
    char line[100];
    std::setvbuf(stdout, nullptr, _IONBF, 0);
    while (std::fgets(line, sizeof line, stdin) != nullptr) {
        if (line[0] == 'f')
            std::free(place.exchange(nullptr));
        else
            place = std::malloc(static_cast<std::size_t>(std::atoi(line)));
        std::printf("done\n");
    }
    return 0;
}

int use_heap() {
    const HANDLE heap = HeapCreate(0, 0, 0);
    void* const kept = HeapAlloc(GetProcessHeap(), 0, 71301);
    void* moved = HeapReAlloc(GetProcessHeap(), 0, HeapAlloc(GetProcessHeap(), 0, 100), 71302);
    HeapFree(GetProcessHeap(), 0, HeapAlloc(GetProcessHeap(), 0, 71303));
    if (HeapReAlloc(GetProcessHeap(), 0, kept, std::size_t{1} << 62) != nullptr)
        return 1;
    for (int i = 0; i < 10; ++i)
        place = HeapAlloc(heap, 0, 71304);
    HeapDestroy(heap);
    std::printf("%p %p\n", kept, moved);
    return 0;
}

// ---- stacks

// Prints the frames that the system finds around this one, of a block of that size.
[[gnu::noinline]] void show(std::size_t size) {
    void* frames[200];
    const unsigned count = RtlCaptureStackBackTrace(0, std::size(frames), frames, nullptr);
    place = std::malloc(size);
    std::printf("%u", static_cast<unsigned>(size));
    for (unsigned i = 1; i < count && frames[i] != nullptr; ++i)
        std::printf(" %p", frames[i]);
    std::printf("\n");
}

// A frame whose size is known when it runs only, and those below it.
[[gnu::noinline]] void with_room(unsigned depth, std::size_t size) {
    auto* const room = static_cast<volatile char*>(__builtin_alloca(100 + depth * 1000));
    room[0] = 1;
    if (depth == 0)
        show(size);
    else
        with_room(depth - 1, size);
    room[1] = 2;
}

template <std::size_t Bytes>
[[gnu::noinline]] void with_large_frame(std::size_t size) {
    volatile char room[Bytes];
    room[0] = 1;
    show(size + static_cast<std::size_t>(room[0]));
    room[1] = room[0];
}

int compare(const void*, const void*) {
    static bool is_shown;
    if (!std::exchange(is_shown, true))
        show(71704);
    return 0;
}

struct shows_when_it_goes {
    ~shows_when_it_goes() { show(71705); }
};

[[gnu::noinline]] void fail() {
    const shows_when_it_goes local;
    throw 1;
}

LONG CALLBACK handle(EXCEPTION_POINTERS* about) {
    if (about->ExceptionRecord->ExceptionCode != 0xe0000001)
        return EXCEPTION_CONTINUE_SEARCH;
    show(71707);
    return EXCEPTION_CONTINUE_EXECUTION;
}

DWORD WINAPI in_pool(void* done) {
    show(71708);
    SetEvent(done);
    return 0;
}

void WINAPI in_fiber(void* back) {
    show(71709);
    SwitchToFiber(back);
}

int show_stacks() {
    show(71701);
    with_room(5, 71702);
    with_large_frame<100'000>(71702);
    int numbers[] = {3, 1, 2};
    std::qsort(numbers, std::size(numbers), sizeof *numbers, compare);
    try {
        fail();
    } catch (int) {
        show(71706);
    }
    AddVectoredExceptionHandler(1, handle);
    RaiseException(0xe0000001, 0, 0, nullptr);
    const HANDLE done = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    QueueUserWorkItem(in_pool, done, WT_EXECUTEDEFAULT);
    WaitForSingleObject(done, INFINITE);
    SwitchToFiber(CreateFiber(0, in_fiber, ConvertThreadToFiber(nullptr)));
    std::thread([] { show(71710); }).join();
    std::atexit([] { show(71711); });
    return 0;
}

// ---- what a recording costs

template <int Depth>
[[gnu::noinline]] void* allocate(std::size_t size) {
    void* volatile block;
    if constexpr (Depth == 0)
        block = std::malloc(size);
    else
        block = allocate<Depth - 1>(size);
    return block;
}

// Prints the nanoseconds of an allocation with its release, ten frames below this one.
int loop(long rounds) {
    static void* blocks[1000];
    unsigned seed = 1;
    const auto begin = std::chrono::steady_clock::now();
    for (long i = 0; i < rounds; ++i) {
        seed = seed * 1664525 + 1013904223;
        void*& block = blocks[seed / 65536 % std::size(blocks)];
        std::free(block);
        block = allocate<10>(16 + seed / 65536 % 200);
    }
    const std::chrono::duration<double, std::nano> time = std::chrono::steady_clock::now() - begin;
    std::printf("%.1f\n", time.count() / static_cast<double>(rounds));
    return 0;
}

std::string utf8(const wchar_t* text) {
    char buffer[4096];
    WideCharToMultiByte(CP_UTF8, 0, text, -1, buffer, sizeof buffer, nullptr, nullptr);
    return buffer;
}

} // namespace

int wmain(int count, wchar_t** words) {
    const std::string what = count > 1 ? utf8(words[1]) : "";
    const auto number = [=](int i) { return count > i ? std::atol(utf8(words[i]).c_str()) : 0; };
    if (what == "words") {
        for (int i = 2; i < count; ++i)
            std::printf("%s\n", utf8(words[i]).c_str());
        return 0;
    }
    if (what == "lose") {
        place = std::malloc(static_cast<std::size_t>(number(2)));
        return 3;
    }
    if (what == "exchange")
        return exchange(static_cast<unsigned>(number(2)), number(3));
    if (what == "stacks")
        return show_stacks();
    if (what == "loop")
        return loop(number(2));
    if (what == "exit")
        return end_at_work(false, static_cast<int>(number(2)));
    if (what == "exit_process")
        return end_at_work(true, static_cast<int>(number(2)));
    if (what == "kill") {
        place = std::malloc(71401);
        TerminateProcess(GetCurrentProcess(), 9);
    }
    if (what == "crash") {
        place = std::malloc(71402);
        SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX);
        RaiseException(0xc0000094, EXCEPTION_NONCONTINUABLE, 0, nullptr);
    }
    if (what == "start")
        return start(utf8(words[2]).c_str(), words);
    if (what == "be_controlled")
        return be_controlled();
    if (what == "heap")
        return use_heap();
    return 2;
}
