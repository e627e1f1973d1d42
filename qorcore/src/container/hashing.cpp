#include "container/hashing.h"

#include <random>

uint64 qor::container::hash_key() noexcept {
    static const uint64 key = [] {
        std::random_device source;
        return uint64{source()} << 32 | source();
    }();
    return key;
}
