// Scenes: parts of a test that need a process of their own, because what they watch happens once in a process (its
// start, its end, what it decides about memory). A scene stands beside its test; the test program plays it by starting
// itself anew. Inside a scene the EXPECT macros work as everywhere: one that fails makes the scene end with 99.
#pragma once

#include <string>
#include <vector>

namespace qor::test {

using words = std::vector<std::string>;

class scene {
public:
    // `act` gets the words given to play() and returns the exit code.
    scene(const char* name, int (*act)(const words& arguments));
    const char* name() const noexcept { return m_name; }

private:
    const char* m_name;
};

struct ending {
    int code; // the exit code; where signals kill, 128 and the signal
    std::string out;
    std::string err;
};

// Runs a program to its end, with an environment in which nothing of the framework is set but `environment`
// ("NAME=VALUE"). Standard input is empty. In what it printed, a line end is one byte on every system.
ending run(const words& command, const words& environment = {});

// Where the test program itself lies.
std::string this_program();

// The command that plays a scene.
words command(const scene& which, const words& arguments = {});

ending play(const scene& which, const words& arguments = {}, const words& environment = {});

} // namespace qor::test
