// Every family of operations behind the table, with the n-th memory request failing, for every n:
//
//   inject_slots FOLDER          under the injector (tests/support/inject), which must be preloaded
//
// Each script runs once undisturbed and then, for n = 1, 2, ..., in a child process of its own, until it makes fewer
// than n requests. Only the children call the framework, so that binding and all first uses can fail too. A child must
// print the same as the undisturbed one and end with 0, or end with another code and a text on standard error. FOLDER
// must be empty; it is for files.
#include "slot_scripts.h"
#include "support/inject/inject.h"

#include <cstdio>
#include <cstdlib>
#include <netdb.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace {

struct script {
    const char* name;
    void (*run)();
};

constexpr script scripts[] = {
    {"memory", use_memory},       {"vector", use_vector},     {"string", use_string},
    {"array", use_array},         {"messages", use_messages}, {"errors", use_errors},
    {"files", use_files},         {"trace", use_trace},       {"process", use_process},
    {"host", use_host},           {"network", use_network},   {"time", use_time},
    {"digest", use_digest},       {"folders", use_folders},   {"containers", use_containers},
    {"config", use_config},       {"store", use_store},       {"threads", use_threads},
    {"timers", use_timers},       {"children", use_children}, {"log", use_log},
    {"services", use_services},   {"serial", use_serial},     {"components", use_components},
    {"listeners", use_listeners}, {"ipc", use_ipc},
};

struct outcome {
    int status;
    bool fired;
    std::string output;
    std::string errors;
};

std::string read_back(std::FILE* file) {
    std::string text;
    std::rewind(file);
    char block[4096];
    while (const std::size_t got = std::fread(block, 1, sizeof block, file))
        text.append(block, got);
    std::fclose(file);
    return text;
}

// Runs one script in a child whose `at`th memory request fails; 0: no request fails.
outcome run(const script& which, unsigned long at) {
    std::FILE* const output = std::tmpfile();
    std::FILE* const errors = std::tmpfile();
    int fired[2];
    if (output == nullptr || errors == nullptr || pipe(fired) != 0)
        std::abort();
    std::fflush(stdout);
    const pid_t child = fork();
    if (child == 0) {
        dup2(fileno(output), STDOUT_FILENO);
        dup2(fileno(errors), STDERR_FILENO);
        qor_inject_tell(fired[1]);
        qor_inject_arm("alloc", at);
        qor::or_end([&] { which.run(); });
        std::fflush(stdout);
        std::_Exit(0);
    }
    close(fired[1]);
    outcome result;
    waitpid(child, &result.status, 0);
    char byte;
    result.fired = read(fired[0], &byte, 1) == 1;
    close(fired[0]);
    result.output = read_back(output);
    result.errors = read_back(errors);
    return result;
}

bool is_right(const outcome& undisturbed, const outcome& seen) {
    if (!WIFEXITED(seen.status))
        return false;
    return WEXITSTATUS(seen.status) == 0 ? seen.output == undisturbed.output
                                         : !seen.errors.empty() || WEXITSTATUS(seen.status) == 100; // binding is silent
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2 || chdir(argv[1]) != 0 || qor_inject_arm == nullptr) {
        std::fputs("usage: inject_slots FOLDER, with the injector preloaded\n", stderr);
        return 2;
    }
    // glibc 2.36 crashes where it has no memory for the configuration of its name service (nss_database). The children
    // inherit it.
    (void)getservbyname("domain", "tcp");
    if (std::FILE* const lines = std::fopen("lines", "w")) {
        for (int i = 0; i < 10'000; ++i)
            std::fprintf(lines, "%s %d\n", long_text, i);
        std::fclose(lines);
    }
    int faults = 0;
    unsigned long runs = 0;
    for (const script& each : scripts) {
        const outcome undisturbed = run(each, 0);
        if (undisturbed.status != 0) {
            std::printf("%s fails undisturbed: %s\n", each.name, undisturbed.errors.c_str());
            return 1;
        }
        unsigned long at = 1;
        for (;; ++at, ++runs) {
            const outcome seen = run(each, at);
            if (!is_right(undisturbed, seen)) {
                std::printf("%s, request %lu: status %x, output '%.200s', errors '%.200s'\n", each.name, at,
                            seen.status, seen.output.c_str(), seen.errors.c_str());
                ++faults;
            }
            if (!seen.fired)
                break;
        }
        std::printf("%s: %lu requests\n", each.name, at - 1);
    }
    std::printf("%lu runs\n", runs);
    return faults == 0 ? 0 : 1;
}
