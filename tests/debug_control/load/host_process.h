// A process of its own with a listener in it, which tells how it fares: what attacks cost is its memory, not the attacker's.
#pragma once

#include "loopback.h"

#include <memory>
#include <string>

namespace qor::test {

// What a process holds.
struct holdings {
    long heap = 0;     // bytes that are allocated
    long resident = 0; // bytes of memory
    long descriptors = 0;
    long threads = 0;
};

holdings measure_this_process();

class host_process {
public:
    host_process(); // the accounts are ada's and bob's, "secret" and "other"
    host_process(const host_process&) = delete;
    host_process& operator=(const host_process&) = delete;
    ~host_process(); // ends it, and expects that it ends well

    uint16 port() const { return m_port; }
    holdings measure();

    // Once its connections are gone, as far as it has any that it must not have: waits until the descriptors are as many as
    // these at most.
    holdings measure_at_rest(const holdings& before);

private:
    std::string ask(char what);

    temp_folder m_folder;
    int m_in = -1;
    int m_out = -1;
    int m_process = 0;
    uint16 m_port = 0;
};

} // namespace qor::test
