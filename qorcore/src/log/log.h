// Inside the library: the way of an entry to the target of the log.
#pragma once

#include "qor/system/LogEntry.h"

#include <string>
#include <string_view>
#include <vector>

namespace qor::log {

struct field {
    std::string name;
    std::string value;
};

// An entry as the caller gives it. The texts are valid during the call only.
struct entry {
    qorLogLevel level;
    std::string_view text;
    const std::vector<field>& fields; // those of the message first
    const qorLogPlace& place;
};

// Whether entries of this level are logged.
bool is_wanted(qorLogLevel level) noexcept;

// Returns false if it is no level (last error); `operation` is the one that was called.
bool check_level(qorLogLevel level, const char* operation) noexcept;

// The text of a message, and the fields that identify it.
std::string message_text(const char* catalog, uint32 number, const char* const* inserts);
std::vector<field> message_fields(const char* catalog, uint32 number, const char* const* inserts);

// Returns false if an entry of this size may not exist (last error).
bool check_size(std::size_t bytes, std::size_t fields) noexcept;

void send(const entry& sent) noexcept;

// Chooses the target. Returns 0 or the system's error code, and then nothing has changed.
int set_target(const char* target) noexcept;

// At the end of the framework: waits for the system's log, a second at most, and says what is lost.
void finish() noexcept;

} // namespace qor::log
