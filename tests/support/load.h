// The size of a test that takes long: the brief form is everybody's, the whole one is for `./test load`.
#pragma once

#include <cstdlib>

namespace qor::test {

inline bool whole_load() {
    static const bool asked = std::getenv("QOR_TEST_LOAD") != nullptr;
    return asked;
}

inline int load(int brief, int whole) { return whole_load() ? whole : brief; }

} // namespace qor::test
