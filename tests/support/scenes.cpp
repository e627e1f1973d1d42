#include "support/scenes.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <map>

namespace {

using qor::test::words;

using act = int (*)(const words&);

std::map<std::string, act>& scenes() {
    static auto* const made = new std::map<std::string, act>;
    return *made;
}

} // namespace

qor::test::scene::scene(const char* name, int (*act)(const words&)) : m_name(name) {
    if (!scenes().emplace(name, act).second) {
        std::fprintf(stderr, "two scenes are called %s\n", name);
        std::abort();
    }
}

qor::test::words qor::test::command(const scene& which, const words& arguments) {
    words result{this_program(), "--scene", which.name()};
    result.insert(result.end(), arguments.begin(), arguments.end());
    return result;
}

qor::test::ending qor::test::play(const scene& which, const words& arguments, const words& environment) {
    return run(command(which, arguments), environment);
}

int main(int argc, char** argv) {
    if (argc < 3 || std::strcmp(argv[1], "--scene") != 0) {
        testing::InitGoogleTest(&argc, argv);
        return RUN_ALL_TESTS();
    }
    const auto found = scenes().find(argv[2]);
    if (found == scenes().end()) {
        std::fprintf(stderr, "there is no scene %s\n", argv[2]);
        return 98;
    }
    const int code = found->second(words(argv + 3, argv + argc));
    return testing::UnitTest::GetInstance()->ad_hoc_test_result().Failed() ? 99 : code;
}
