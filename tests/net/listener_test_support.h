// What the tests of listeners share.
#pragma once

#include "qor/qor.h"

#include <atomic>

namespace qor::test {

// For tests whose peers all have the same address.
inline constexpr qorIPPortOptions local = {.address = "127.0.0.1", .connections = 0, .connections_of_source = 0};

// Counts its copies that are alive.
struct alive {
    explicit alive(std::atomic<int>& all) : count(&all) { ++*count; }
    alive(const alive& other) : count(other.count) { ++*count; }
    alive& operator=(const alive&) = delete;
    ~alive() { --*count; }
    std::atomic<int>* count;
};

} // namespace qor::test
