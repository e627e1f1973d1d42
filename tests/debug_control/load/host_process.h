// A process of its own with a listener in it, which tells how it fares: what attacks cost is its memory, not the
// attacker's.
#pragma once

#include "loopback.h"

#include <cstdlib>
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
    // The accounts are ada's and bob's, "secret" and "other", and those of these lines.
    explicit host_process(const std::string& more_accounts = {});
    host_process(const host_process&) = delete;
    host_process& operator=(const host_process&) = delete;
    ~host_process(); // ends it, and expects that it ends well

    uint16 port() const { return m_port; }
    holdings measure();

    // Once its connections are gone, as far as it has any that it must not have: waits until the descriptors are as
    // many as these at most.
    holdings measure_at_rest(const holdings& before);

    // Closes all its descriptors but the standard ones, and opens other sockets in their place, in each of which
    // something waits to be read. Its trace is at trace_path() from then on.
    void close_descriptors() { EXPECT_EQ(ask('c'), "done"); }
    std::string trace_path() const { return m_folder / "trace"; }
    // How many of these sockets are as they were.
    int untouched() { return std::atoi(ask('u').c_str()); }
    void release_listener() { EXPECT_EQ(ask('r'), "done"); }
    void listen_again() { m_port = static_cast<uint16>(std::atoi(ask('l').c_str())); }

private:
    std::string ask(char what);

    temp_folder m_folder;
    int m_in = -1;
    int m_out = -1;
    int m_process = 0;
    uint16 m_port = 0;
};

} // namespace qor::test
