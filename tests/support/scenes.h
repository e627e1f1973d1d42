// Scenes: parts of a test that need a process of their own, because they test events that happen once in a process (its
// start, its end, its decisions about memory). A scene is defined beside its test; the test program plays it by
// starting itself again. The EXPECT macros work in a scene as usual: if one fails, the scene ends with 99.
#pragma once

#include <string>
#include <vector>

namespace qor::test {

using words = std::vector<std::string>;

class scene {
public:
    // `act` gets the arguments of play() and returns the exit code.
    scene(const char* name, int (*act)(const words& arguments));
    const char* name() const noexcept { return m_name; }

private:
    const char* m_name;
};

struct ending {
    int code; // the exit code; after a signal, 128 plus its number
    std::string out;
    std::string err;
};

// Runs a program to its end. Its environment contains only the framework variables of `environment` ("NAME=VALUE").
// Standard input is empty. In the captured output, a line end is one byte on every system.
ending run(const words& command, const words& environment = {});

// Returns the path of the test program itself.
std::string this_program();

// Returns the command that plays a scene.
words command(const scene& which, const words& arguments = {});

ending play(const scene& which, const words& arguments = {}, const words& environment = {});

} // namespace qor::test
