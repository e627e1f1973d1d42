// Services of the host: whether there is one, starting and stopping it. On Linux the manager is systemd, asked over
// D-Bus by the module qor-systemd, which is loaded on first use; on Windows it is the service control manager.
// docs/services.md has an example, and says what each system reports.
//
// Any thread may call these operations, several at once. Each call has a connection of its own, which ends with it. A
// call waits for the manager until the service has started or stopped, or the time limit is over.
#pragma once

#include "qor/system/StringArray.h"

// Whose services. Windows only has those of the system.
enum class qorServiceManager : uint32 {
    system,
    user, // those of the user as whom the process runs
};

// The state of a service.
enum class qorServiceState : uint32 {
    unknown, // a state that this release does not know
    inactive,
    activating, // it starts; on Linux also while the manager waits before it starts it again
    active,
    reloading, // it is active, and reads its configuration again
    deactivating,
    failed, // it is not active, because it failed (Linux)
    paused, // Windows
};

// How the main process of a service ended.
enum class qorServiceEnd : uint32 {
    none,     // it has not run, or it still runs, or nobody knows
    exited,   // with `code`
    killed,   // by the signal `code` (Linux)
    reported, // it reported the error `code` of its own, not one of the system (Windows)
};

// The most lines of a service's log that can be asked for.
inline constexpr uint32 qorMaxServiceLines = 1000;

// How a service is asked for.
struct qorServiceOptions {
    // The one that is asked.
    qorServiceManager manager = qorServiceManager::system;
    // How many milliseconds the call may take; 0 for no limit. When they are over, the state is asked for once more,
    // for a second at most.
    uint32 wait = 90000;
    // How many lines at the end of the service's log a failed start reports, at most qorMaxServiceLines.
    uint32 lines = 10;
    // Whether the manager may ask the user for permission, for instance for a password (Linux). This takes part of the
    // time limit.
    bool ask = false;
};

// What the manager says about a service.
struct qorServiceStatus {
    qorString name;        // as the manager spells it: "nginx.service"
    qorString description; // a text for people
    // Its state at the end of the call.
    qorServiceState state = qorServiceState::unknown;
    // More about the state in the manager's own words ("running", "auto-restart"); empty on Windows.
    qorString detail;
    // Whether it can be started at all: on Linux it may be masked, on Windows disabled.
    bool masked = false;
    uint32 process = 0; // the number of the main process; 0: none
    // The last end of the main process, and on Linux why the manager calls it a failure, in its own words ("exit-code",
    // "timeout"); empty if it does not.
    qorServiceEnd end = qorServiceEnd::none;
    int32 code = 0;
    qorString result;
    // The last lines of its log, filled in by a failed start. Empty if the caller may not read the log, and on Windows.
    qorStringArray lines;
};

// Returns whether there is such a service. On Linux the name of a unit without an ending is that of a service: "nginx"
// is "nginx.service"; other units have their ending ("cups.socket"), and a template ("getty@") is found, too. If there
// is no such service, the operation returns false and leaves the last error unchanged; if the manager does not tell, it
// returns false and sets the last error. `status` is filled in if the service exists; null: not wanted.
inline bool qorServiceExists(const char* name, const qorServiceOptions& options = {},
                             qorServiceStatus* status = nullptr) noexcept {
    return qor::glue::qorServiceExists(name, options, status);
}

// Starts a service with everything that it needs, and waits until the manager says that it has started; a service that
// runs already is a success, too. Returns false and sets the last error on failure:
//
//   qorError_service_unknown        there is no such service
//   qorError_service_masked         it cannot be started: it is masked or disabled
//   qorError_service_failed         it has failed; the text has the reason and the last lines of its log
//   qorError_service_timeout        the time limit is over; the text has the state; the start goes on
//   qorError_service_no_right       the caller may not do this
//   qorError_service_no_manager     there is no manager here
//   qorError_service_refused        the manager refused for another reason, which the text has
//   qorError_service_manager_lost   the manager did not answer, or ended meanwhile
//   qorError_service_name           the name cannot be one of a service
//
// On success and after the errors `masked`, `failed`, `timeout` and `refused`, `status` is filled in as far as the
// manager told it.
inline bool qorServiceStart(const char* name, const qorServiceOptions& options = {},
                            qorServiceStatus* status = nullptr) noexcept {
    return qor::glue::qorServiceStart(name, options, status);
}

// Stops a service in the same way. A service that does not run is a success, whatever its state (`failed` is one), and
// so is one that the manager had to kill. On Windows a service that others need is not stopped
// (qorError_service_needed, with their names); on Linux the manager stops these, too.
inline bool qorServiceStop(const char* name, const qorServiceOptions& options = {},
                           qorServiceStatus* status = nullptr) noexcept {
    return qor::glue::qorServiceStop(name, options, status);
}
