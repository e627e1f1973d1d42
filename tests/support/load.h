// The size of a long test: every suite runs the brief form, `./test load` the whole one.
#pragma once

#include <cstdlib>

namespace qor::test {

inline bool whole_load() {
    static const bool asked = std::getenv("QOR_TEST_LOAD") != nullptr;
    return asked;
}

inline int load(int brief, int whole) { return whole_load() ? whole : brief; }

} // namespace qor::test
