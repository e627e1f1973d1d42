// Inside the module qor-systemd: a connection to a bus of D-Bus, on which nothing takes longer than the time limit.
#pragma once

#include "qor/qor.h"

#include <memory>
#include <string>
#include <string_view>
#include <systemd/sd-bus.h>
#include <vector>

namespace systemd {

inline constexpr char manager_name[] = "org.freedesktop.systemd1";
inline constexpr char manager_path[] = "/org/freedesktop/systemd1";
inline constexpr char manager_interface[] = "org.freedesktop.systemd1.Manager";

struct unreferenced {
    void operator()(sd_bus_message* message) const noexcept { sd_bus_message_unref(message); }
    void operator()(sd_bus_slot* slot) const noexcept { sd_bus_slot_unref(slot); }
    void operator()(sd_bus* bus) const noexcept { sd_bus_close_unref(bus); } // discards what was not sent
};
using message_pointer = std::unique_ptr<sd_bus_message, unreferenced>;

// The end of a wait, by a clock that nobody sets.
class time_limit {
public:
    explicit time_limit(uint32 milliseconds) noexcept; // 0: none

    bool is_over() const noexcept { return left() == 0; }
    // In microseconds; the largest number for a wait without end.
    uint64 left() const noexcept;

private:
    uint64 m_end;
};

// Operations that fail return false and set the last error.
class connection {
public:
    // `unit` is for the texts of errors.
    connection(const std::string& unit, time_limit limit) noexcept : m_unit(unit), m_limit(limit) {}
    connection(const connection&) = delete;
    connection& operator=(const connection&) = delete;

    bool open(qorServiceManager which);

    // Asks that jobs which end be noted from now on. It also notices if the manager ends.
    bool watch_jobs();
    // Waits until this job has ended. `result` is what the manager says about it; empty if the time is over.
    bool wait_for_job(const std::string& job, std::string& result);

    // Asks the manager: `fill` adds the arguments, and returns a negative error number if it cannot. The answer may be
    // an error of the manager: see error_of().
    template <class FILL>
    bool ask(const char* path, const char* interface, const char* member, FILL fill, message_pointer& answer) {
        message_pointer question;
        if (!begin(path, interface, member, question))
            return false;
        if (const int result = fill(question.get()); result < 0)
            return lost(result);
        return exchange(question.get(), answer);
    }
    // The same without arguments.
    bool ask(const char* path, const char* interface, const char* member, message_pointer& answer) {
        return ask(
            path, interface, member, [](sd_bus_message*) { return 0; }, answer);
    }

    // The name of the error, if an answer is one; otherwise empty.
    static std::string_view error_of(const message_pointer& answer) noexcept;

    // Set the last error and return false: for an answer that is an error, and for an error number of libsystemd.
    bool refused(const message_pointer& answer);
    bool lost(int code);

    // A new limit, for the questions that follow.
    void set_limit(time_limit limit) noexcept { m_limit = limit; }

private:
    bool begin(const char* path, const char* interface, const char* member, message_pointer& out);
    bool exchange(sd_bus_message* question, message_pointer& answer);
    bool step();
    bool silent();
    bool is_from_manager(sd_bus_message* message) const noexcept;

    static int on_answer(sd_bus_message* message, void* answer, sd_bus_error*) noexcept;
    static int on_job(sd_bus_message* message, void* self, sd_bus_error*) noexcept;
    static int on_owner(sd_bus_message* message, void* self, sd_bus_error*) noexcept;

    // A job that ended before it was known which one is wanted.
    struct ended_job {
        std::string path;
        std::string result;
    };

    const std::string& m_unit;
    time_limit m_limit;
    std::unique_ptr<sd_bus, unreferenced> m_bus;
    std::string m_owner; // the manager's unique name on the bus, from its first answer on
    std::string m_job;   // the one that is waited for
    std::vector<ended_job> m_ended;
    std::string m_result;
    bool m_is_gone = false; // the manager has left the bus
    bool m_has_no_memory = false;
};

// The beginning of a text of somebody else: without control characters, and of a limited length.
std::string harmless(std::string_view text, std::size_t limit = 500);

// The same for the place of a reason in an error, where a full stop follows.
std::string as_reason(std::string_view text);

} // namespace systemd
