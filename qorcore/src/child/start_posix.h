// Inside the POSIX half of child processes: the start, between the checks and the first instruction of the program.
#pragma once

#include "qor/system/Types.h"

#include <sys/types.h>
#include <vector>

namespace qor::child {

// A descriptor of the own process, and its number in the child.
struct passed_descriptor {
    int own;
    int in_child;
    int moved = -1; // where the child keeps it meanwhile
};

// Everything is prepared: the child must not allocate memory.
struct start_plan {
    std::vector<char*> files; // the program's file may be each of these; ends with null, like the next two
    std::vector<char*> arguments;
    std::vector<char*> environment;
    const char* folder = nullptr;
    uint32 umask = 0;
    bool sets_umask = false;
    bool own_group = false;
    std::vector<passed_descriptor> descriptors; // by their numbers in the child, each of which is there once

    void add(int own, int in_child) { descriptors.push_back({own, in_child}); }
};

// Where a start has failed.
enum class start_step { process, group, descriptors, folder, program };

struct start_result {
    pid_t process = -1;
    int pidfd = -1; // -1: the kernel has none
    start_step step = start_step::process;
    int code = 0;        // of the system; 0: the program runs
    int descriptor = -1; // for descriptors
};

// Whether pidfds are used where the kernel has them. Tests switch them off.
extern bool s_uses_pidfd;

// Starts the program.
start_result start_program(start_plan& plan) noexcept;

} // namespace qor::child
