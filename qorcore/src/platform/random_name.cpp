#include "platform/random_name.h"

#include <random>

std::string qor::platform::random_name() {
    constexpr char characters[] = "abcdefghijklmnopqrstuvwxyz234567";
    std::random_device random;
    std::string name;
    while (name.size() < random_name_length)
        for (unsigned bits = random(), i = 0; i < 6; ++i, bits >>= 5)
            name += characters[bits & 31];
    return name;
}
