// What the test modules offer, and what they tell a test.
#pragma once

#include "qor/qor.h"

#include <atomic>

namespace qor::test {

class IQORScanner : public IQORInterface {
public:
    virtual uint32 Scan(uint32 lines) noexcept = 0;

protected:
    ~IQORScanner() = default;
};

// What happens in modules. Shared by the whole process.
struct counters {
    std::atomic<int> starts{0};  // of test-scanner and test-slow
    std::atomic<int> objects{0}; // that exist
    std::atomic<bool> fails{false};
    qorGate starting{false}; // test-slow has begun its start
    qorGate go_on{false};    // and waits for this
};

inline counters& shared_counters() { return *qorGetGlobalSlot<counters>("test.counters"); }

class scanner : public qor::object<IQORScanner> {
public:
    explicit scanner(uint32 factor) : object("test.scanner", "qor::test::IQORScanner"), m_factor(factor) {
        ++shared_counters().objects;
    }
    ~scanner() override { --shared_counters().objects; }

    uint32 Scan(uint32 lines) noexcept override { return lines * m_factor; }

private:
    const uint32 m_factor;
};

template <uint32 FACTOR>
class scanner_of final : public scanner {
public:
    scanner_of() : scanner(FACTOR) {}
};

} // namespace qor::test
