#include "requests.h"

#include "journal.h"
#include "message_names.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>

namespace framework = qor::messages::framework;

namespace {

using systemd::connection;
using systemd::lookup;
using systemd::message_pointer;
using systemd::unit;
using systemd::unit_name;

// How many milliseconds the state may take to be read when the time limit is over.
constexpr uint32 grace = 1000;
// How many milliseconds the journal may be searched, which on a host that writes much can take long.
constexpr uint32 search = 5000;
// How much of a line goes into the text of an error.
constexpr std::size_t line_in_error = 200;

bool wrong_name(const char* name, uint32 reason, const char* insert = "") {
    qorString text;
    text.Format(framework::catalog, reason, insert);
    qorSetLastError(qorError_service_name, systemd::harmless(name).c_str(), text.Text());
    return false;
}

std::string name_of_signal(int number) {
    const char* const name = sigabbrev_np(number);
    return name != nullptr ? std::string("SIG").append(name) : std::to_string(number);
}

// Why a service has failed, in words.
qorString reason_of(const unit& which, const std::string& job_result) {
    qorString text;
    // After another result, what the manager says about the service is about an earlier run.
    const bool is_of_service = job_result == "failed" || job_result == "timeout" || job_result == "done";
    const std::string result = is_of_service ? which.result : std::string();
    const auto fill_in = [&](uint32 number, const std::string& insert) {
        text.Format(framework::catalog, number, insert.c_str());
        return text;
    };
    if (job_result == "dependency")
        return fill_in(framework::service_dependency, {});
    if (result == "exit-code" && which.end_kind == CLD_EXITED && which.end_status != 0)
        return fill_in(framework::service_exited, std::to_string(which.end_status));
    if (which.end_kind == CLD_KILLED || which.end_kind == CLD_DUMPED)
        if (result == "signal" || result == "core-dump")
            return fill_in(framework::service_killed, name_of_signal(which.end_status));
    return fill_in(framework::service_result, !result.empty() && result != "success" ? result : job_result);
}

bool failed(const unit& which, const std::string& job_result, const qorServiceOptions& options, bool reads_log,
            systemd::time_limit limit, qorServiceStatus& status) {
    const qorString reason = reason_of(which, job_result);
    std::string text;
    if (reads_log) {
        const uint64 left = std::clamp<uint64>(limit.left() / 1000, grace, search);
        for (const std::string& line :
             last_lines(options.manager, which, options.lines, systemd::time_limit(static_cast<uint32>(left)))) {
            status.lines.Append(line.c_str());
            text.append("\n    ").append(systemd::harmless(line, line_in_error));
        }
    }
    qorSetLastError(qorError_service_failed, which.id.c_str(), reason.Text(), text.c_str());
    return false;
}

// Whether a unit that exists can be started; sets the last error if not.
bool can_start(const unit& which) {
    if (which.is_masked()) {
        qorSetLastError(qorError_service_masked, which.id.c_str());
        return false;
    }
    if (which.load_state == "loaded" || which.load_state == "merged" || which.load_state == "stub" ||
        which.load_state == "not-found") // it was deleted while it ran
        return true;
    qorSetLastError(qorError_service_refused, which.id.c_str(),
                    systemd::as_reason(which.load_error.empty() ? which.load_state : which.load_error).c_str());
    return false;
}

// Asks for a job; on success `job` is its object.
bool begin_job(connection& bus, bool is_start, const unit_name& name, bool may_ask, std::string& job) {
    message_pointer answer;
    const auto fill = [&](sd_bus_message* question) {
        const int result = may_ask ? sd_bus_message_set_allow_interactive_authorization(question, 1) : 0;
        return result < 0 ? result : sd_bus_message_append(question, "ss", name.text.c_str(), "replace");
    };
    if (!bus.ask(systemd::manager_path, systemd::manager_interface, is_start ? "StartUnit" : "StopUnit", fill, answer))
        return false;
    if (!connection::error_of(answer).empty())
        return bus.refused(answer);
    const char* path = nullptr;
    const int result = sd_bus_message_read(answer.get(), "o", &path);
    if (result <= 0)
        return bus.lost(result < 0 ? result : -EBADMSG);
    job = path;
    return true;
}

bool run_job(connection& bus, bool is_start, const unit_name& name, const qorServiceOptions& options,
             systemd::time_limit limit, unit& which, qorServiceStatus& status) {
    std::string job, result;
    if (!begin_job(bus, is_start, name, options.ask, job) || !bus.wait_for_job(job, result))
        return false;
    if (limit.left() < uint64(grace) * 1000)
        bus.set_limit(systemd::time_limit(grace));
    if (!read_unit(bus, name, which))
        return false;
    fill(which, status);
    if (result.empty()) {
        qorSetLastError(qorError_service_timeout, which.id.c_str(), which.active_state.c_str(),
                        std::to_string(options.wait).c_str());
        return false;
    }
    // A service whose conditions are not met is skipped: the manager calls that done.
    const bool is_done = result == "done" || result == "skipped";
    if (is_done && !(is_start && which.has_failed()))
        return true;
    return failed(which, result, options, is_start, limit, status);
}

} // namespace

bool systemd::perform(qorServiceRequest request, const char* name, const qorServiceOptions& options,
                      qorServiceStatus& status) {
    unit_name whole;
    if (!complete(name, whole))
        return wrong_name(name, framework::service_characters);
    const bool only_looks = request == qorServiceRequest::exists;
    if (whole.is_template && !only_looks) {
        std::string instance = whole.text;
        instance.insert(instance.rfind('@') + 1, "NAME");
        return wrong_name(name, framework::service_template, instance.c_str());
    }
    const time_limit limit(options.wait);
    connection bus(whole.text, limit);
    if (!bus.open(options.manager) || (!only_looks && !bus.watch_jobs()))
        return false;
    unit which;
    const lookup looked = whole.is_template ? find_template(bus, whole, which) : find_unit(bus, whole, which);
    if (looked == lookup::failed)
        return false;
    if (looked == lookup::absent) {
        if (!only_looks)
            qorSetLastError(qorError_service_unknown, whole.text.c_str());
        return false;
    }
    fill(which, status);
    if (only_looks)
        return true;
    const bool is_start = request == qorServiceRequest::start;
    return (!is_start || can_start(which)) && run_job(bus, is_start, whole, options, limit, which, status);
}
