// Inside the module qor-systemd: what the manager says about a unit.
#pragma once

#include "connection.h"
#include "unit_name.h"

namespace systemd {

// Texts that the manager did not give are empty. All of them are harmless().
struct unit {
    std::string path; // the object of the bus
    std::string id;
    std::string description;
    std::string load_state;
    std::string load_error;
    std::string active_state;
    std::string sub_state;
    uint64 started = 0;     // its last start, in microseconds since 1970; 0: unknown
    std::string invocation; // the number of its last start, in hexadecimal digits; empty if it has none
    // Of services only.
    std::string result;
    int32 end_kind = 0; // CLD_EXITED and others
    int32 end_status = 0;
    uint32 process = 0;

    bool is_masked() const noexcept { return load_state == "masked"; }
    bool has_failed() const noexcept { return active_state == "failed"; }
    bool runs() const noexcept { return active_state != "inactive" && !has_failed(); }
    // What was deleted while it ran still exists until it ends.
    bool is_absent() const noexcept { return load_state == "not-found" && !runs(); }
};

enum class lookup { found, absent, failed }; // `failed`: the last error says why

// Finds a unit and reads its properties; the manager loads its file if it has not done so. Not for templates.
lookup find_unit(connection& bus, const unit_name& name, unit& out);

// Looks for the file of a template.
lookup find_template(connection& bus, const unit_name& name, unit& out);

// Reads the properties again.
bool read_unit(connection& bus, const unit_name& name, unit& out);

qorServiceState state_of(const unit& which) noexcept;
void fill(const unit& from, qorServiceStatus& out);

} // namespace systemd
