// A separate process with a listener, which reports its resources. So a test measures the cost of an attack for the
// victim, not for the attacker.
#pragma once

#include "loopback.h"

#include <cstdlib>
#include <memory>
#include <string>

namespace qor::test {

// The resources of a process.
struct holdings {
    long heap = 0;     // bytes of allocated memory
    long resident = 0; // bytes of resident memory
    long descriptors = 0;
    long threads = 0;
};

holdings measure_this_process();

class host_process {
public:
    // The accounts are those of ada and bob, with the passwords "secret" and "other", and those of these lines.
    explicit host_process(const std::string& more_accounts = {});
    host_process(const host_process&) = delete;
    host_process& operator=(const host_process&) = delete;
    ~host_process(); // ends it, and expects exit code 0

    uint16 port() const { return m_port; }
    holdings measure();

    // Measures after surplus connections are gone: waits until there are at most as many descriptors as in `before`.
    holdings measure_at_rest(const holdings& before);

    // Closes all its descriptors except the standard ones and opens other sockets in their place, each with unread
    // data. Afterwards its trace is at trace_path().
    void close_descriptors() { EXPECT_EQ(ask('c'), "done"); }
    std::string trace_path() const { return m_folder / "trace"; }
    // Returns how many of these sockets are unchanged.
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
