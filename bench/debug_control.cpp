// Debug control over the loopback network, with listener and console in one process: lists of 10,000 trace codes, half
// of them on; one small request; a login; and the cost of a disabled trace scope in a process that listens.
//
//   debug_control_bench [--brief]
//
// Prints medians. The exit code is 1 if a list takes more than 100 ms, or the scope more than 3 ns, even in its best
// round. A brief run never fails because of a figure, since other programs influence it too much.
#include "qor/qor.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <vector>

namespace {

constexpr uint32 code_count = 10'000;
constexpr double list_limit = 100; // milliseconds
constexpr double scope_limit = 3;  // nanoseconds
constexpr int scope_count = 1'000'000;

double milliseconds(auto action) {
    using clock = std::chrono::steady_clock;
    const clock::time_point begin = clock::now();
    action();
    return std::chrono::duration<double, std::milli>(clock::now() - begin).count();
}

void require(bool done) {
    if (done)
        return;
    fputerr(stderr, true);
    std::exit(1);
}

// Prints the median and returns the best round.
double print(const char* name, unsigned rounds, auto action) {
    std::vector<double> all;
    for (unsigned i = 0; i < rounds; ++i)
        all.push_back(milliseconds(action));
    std::sort(all.begin(), all.end());
    std::printf("%-34s %8.2f ms\n", name, all[all.size() / 2]);
    return all.front();
}

// A settings folder of its own, removed with the object.
class folder {
public:
    folder() {
        std::filesystem::create_directory(m_path);
        setenv("XDG_CONFIG_HOME", m_path.c_str(), 1);
    }
    folder(const folder&) = delete;
    folder& operator=(const folder&) = delete;
    ~folder() { std::filesystem::remove_all(m_path); }
    std::string file(const char* name) const { return m_path / name; }

private:
    const std::filesystem::path m_path =
        std::filesystem::temp_directory_path() /
        ("qor-bench-" + std::to_string(std::chrono::steady_clock::now().time_since_epoch().count()));
};

void run_scopes(uint32 code) {
    for (int i = 0; i < scope_count; ++i) {
        const qorDebugSeq scope(code, "run_scopes");
        asm volatile("" ::: "memory"); // each pass loads and tests again
    }
}

// Returns whether all limits are kept.
bool run(unsigned rounds) {
    const folder settings;
    const std::string users = settings.file("users");
    uint16 port = 0;
    require(qorAddDebugUser(users.c_str(), "bench", "a password"));
    require(qorDebugListen("0", users.c_str(), &port));
    for (uint32 i = 0; i < code_count; ++i)
        qorDebugAllocateCode(("bench.subsystem." + std::to_string(i) + (i % 2 == 0 ? ".even" : ".odd")).c_str());
    qorDebugEnableCode("*.even", true);
    zetSmartPointer<IQORDebugControl> control;
    create_IQORDebugControl(control.Out());
    print("login, 600,000 iterations", 3,
          [&] { require(control->Connect("127.0.0.1", port) && control->Login("bench", "a password")); });
    qorStringArray names;
    const double all = print("list of 10,000 codes", rounds, [&] { require(control->GetCodes(names)); });
    if (names.GetCount() < code_count)
        std::exit(1);
    const double enabled =
        print("list of the 5,000 that are on", rounds, [&] { require(control->GetEnabledCodes(names)); });
    print("a code switched", 10 * rounds, [&] { require(control->EnableCode("bench.subsystem.1.odd", false)); });
    const uint32 off = qorDebugAllocateCode("bench.scope");
    const double nanoseconds_each = 1e6 / scope_count;
    const double scope = nanoseconds_each * print("a million scopes that are off", rounds, [&] { run_scopes(off); });
    control.Empty();
    qorCleanup();
    return all <= list_limit && enabled <= list_limit && scope <= scope_limit;
}

} // namespace

int main(int argc, char** argv) {
    const bool brief = argc > 1 && std::strcmp(argv[1], "--brief") == 0;
    const bool good = run(brief ? 3 : 21);
    return brief || good ? 0 : 1;
}
