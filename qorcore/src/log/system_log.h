// Inside the log: the system's own log.
#pragma once

#include "debug/line_output.h"
#include "log/log.h"

#include <memory>
#include <string>
#include <vector>

namespace qor::log {

// An entry as it waits for the system's log.
struct system_entry {
    qorLogLevel level;
    std::string program;
    std::string text;
    std::vector<field> fields;
    std::string file;
    uint32 line;
    std::string function;
    unsigned long process;
    unsigned long thread;
    debug::moment time;
    bool has_waited = false; // the time of its arrival there is not that of the entry

    std::size_t size() const noexcept;
};

// Returns the caller's entry, of this moment.
std::shared_ptr<system_entry> make_system_entry(const entry& sent);

// What takes the entries. One thread at a time uses it.
class system_service {
public:
    enum class outcome {
        taken,
        busy,    // not now, but soon
        absent,  // nobody is there to take it
        refused, // it can take other entries, but not this one
    };

    virtual outcome send(const system_entry& entry) noexcept = 0;

    // Whether send() may take long. Otherwise it only makes calls that do not wait.
    virtual bool may_wait() const noexcept = 0;

    // Why the last entry was not taken.
    virtual std::string reason() = 0;

    // Begins anew in a forked child.
    virtual void continue_in_child() noexcept = 0;

protected:
    ~system_service() = default;
};

// ---- implemented for each system

// Returns the system's own log, which is never destroyed.
system_service& own_system_log();

} // namespace qor::log
