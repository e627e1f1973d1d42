#include "connection.h"

#include "common/system_reason.h"
#include "message_names.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <limits>
#include <new>
#include <unistd.h>

namespace framework = qor::messages::framework;

namespace {

constexpr uint64 endless = std::numeric_limits<uint64>::max();
constexpr char system_bus[] = "unix:path=/run/dbus/system_bus_socket";

// The manager answers a request before the job can end, so these are other jobs, and a few are enough.
constexpr std::size_t most_ended = 64;

uint64 now() noexcept {
    return static_cast<uint64>(
        std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now().time_since_epoch())
            .count());
}

// A variable of the environment, unless the process has rights that its caller does not have.
std::string_view variable(const char* name) noexcept {
    const char* const value = secure_getenv(name);
    return value != nullptr ? value : "";
}

// A path as a value in an address of D-Bus.
std::string escaped(std::string_view path) {
    std::string out;
    for (const char each : path) {
        const auto byte = static_cast<unsigned char>(each);
        if ((byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') || (byte >= '0' && byte <= '9') ||
            std::strchr("-_/.", each) != nullptr) {
            out += each;
        } else {
            constexpr char digits[] = "0123456789abcdef";
            out += '%';
            out += digits[byte >> 4];
            out += digits[byte & 15];
        }
    }
    return out;
}

std::string address_of(qorServiceManager which) {
    if (which == qorServiceManager::system) {
        const std::string_view chosen = variable("DBUS_SYSTEM_BUS_ADDRESS");
        return std::string(!chosen.empty() ? chosen : system_bus);
    }
    if (const std::string_view chosen = variable("DBUS_SESSION_BUS_ADDRESS"); !chosen.empty())
        return std::string(chosen);
    std::string folder(variable("XDG_RUNTIME_DIR"));
    if (folder.empty())
        folder.append("/run/user/").append(std::to_string(geteuid()));
    std::string address("unix:path=");
    return address.append(escaped(folder)).append("/bus");
}

// libsystemd knows other kinds of addresses, which would start a process or look a host up without a limit.
bool is_local(std::string_view address) noexcept {
    while (!address.empty()) {
        if (!address.starts_with("unix:"))
            return false;
        address.remove_prefix(std::min(address.find(';'), address.size() - 1) + 1);
    }
    return true;
}

// Returns 0 or a negative error number.
int connect_to(const std::string& address, std::unique_ptr<sd_bus, systemd::unreferenced>& out) noexcept {
    sd_bus* made = nullptr;
    int result = sd_bus_new(&made);
    if (result < 0)
        return result;
    out.reset(made);
    result = sd_bus_set_address(made, address.c_str());
    if (result >= 0)
        result = sd_bus_set_bus_client(made, 1);
    return result >= 0 ? sd_bus_start(made) : result;
}

qorString message_text(uint32 number) {
    qorString text;
    text.LoadString(framework::catalog, number);
    return text;
}

} // namespace

// ---- time limits

systemd::time_limit::time_limit(uint32 milliseconds) noexcept
    : m_end(milliseconds != 0 ? now() + uint64(milliseconds) * 1000 : endless) {}

uint64 systemd::time_limit::left() const noexcept {
    if (m_end == endless)
        return endless;
    const uint64 present = now();
    return present < m_end ? m_end - present : 0;
}

// ---- errors

std::string systemd::harmless(std::string_view text, std::size_t limit) {
    const bool is_long = text.size() > limit;
    if (is_long) {
        // Keep characters whole.
        while (limit > 0 && (text[limit] & 0xc0) == 0x80)
            --limit;
        text = text.substr(0, limit);
    }
    std::string out;
    out.reserve(text.size() + 3);
    for (const char each : text)
        out.push_back(static_cast<unsigned char>(each) < 0x20 || each == 0x7f ? ' ' : each);
    if (is_long)
        out.append("...");
    return out;
}

std::string systemd::as_reason(std::string_view text) {
    std::string out = harmless(text);
    out.erase(out.find_last_not_of(" .") + 1);
    return out;
}

bool systemd::connection::lost(int code) {
    if (code == -ENOMEM)
        throw std::bad_alloc();
    qorString reason;
    if (code == -ENOTCONN || code == -ECONNRESET || code == -EPIPE)
        reason = message_text(framework::peer_closed_connection);
    else if (code == -ETIMEDOUT)
        reason = message_text(framework::peer_does_not_answer);
    else // libsystemd says ENXIO where a message has fewer values than are read
        reason = qor::modules::system_reason(code == -ENXIO ? EBADMSG : -code).c_str();
    qorSetLastError(qorError_service_manager_lost, m_unit.c_str(), reason.Text());
    return false;
}

bool systemd::connection::silent() { return lost(-ETIMEDOUT); }

std::string_view systemd::connection::error_of(const message_pointer& answer) noexcept {
    const sd_bus_error* const error = sd_bus_message_get_error(answer.get());
    return error != nullptr && error->name != nullptr ? error->name : "";
}

bool systemd::connection::refused(const message_pointer& answer) {
    const std::string_view name = error_of(answer);
    const char* const given = sd_bus_message_get_error(answer.get())->message;
    const std::string text = as_reason(given != nullptr && *given != '\0' ? std::string_view(given) : name);
    const auto is_one_of = [&](std::initializer_list<std::string_view> names) {
        return std::find(names.begin(), names.end(), name) != names.end();
    };
    if (is_one_of({SD_BUS_ERROR_NO_REPLY, SD_BUS_ERROR_DISCONNECTED}))
        return lost(-ENOTCONN);
    if (is_one_of({SD_BUS_ERROR_TIMEOUT}))
        return lost(-ETIMEDOUT);
    if (is_one_of(
            {SD_BUS_ERROR_ACCESS_DENIED, SD_BUS_ERROR_INTERACTIVE_AUTHORIZATION_REQUIRED, SD_BUS_ERROR_AUTH_FAILED}))
        qorSetLastError(qorError_service_no_right, m_unit.c_str(), text.c_str());
    else if (is_one_of({SD_BUS_ERROR_SERVICE_UNKNOWN, SD_BUS_ERROR_NAME_HAS_NO_OWNER}) && m_owner.empty())
        qorSetLastError(qorError_service_no_manager, text.c_str());
    else if (is_one_of({SD_BUS_ERROR_SERVICE_UNKNOWN, SD_BUS_ERROR_NAME_HAS_NO_OWNER}))
        return lost(-ENOTCONN); // it was there a moment ago
    else if (is_one_of({"org.freedesktop.systemd1.NoSuchUnit"}))
        qorSetLastError(qorError_service_unknown, m_unit.c_str());
    else if (is_one_of({"org.freedesktop.systemd1.UnitMasked"}))
        qorSetLastError(qorError_service_masked, m_unit.c_str());
    else
        qorSetLastError(qorError_service_refused, m_unit.c_str(), text.c_str());
    return false;
}

// ---- the connection

bool systemd::connection::open(qorServiceManager which) {
    const std::string address = address_of(which);
    int result = is_local(address) ? connect_to(address, m_bus) : -EOPNOTSUPP;
    // A bus with much to do has no room for a further connection.
    while ((result == -EAGAIN || result == -EINTR) && !m_limit.is_over()) {
        const timespec pause = {0, 10'000'000};
        nanosleep(&pause, nullptr);
        result = connect_to(address, m_bus);
    }
    if (result >= 0)
        return true;
    if (result == -ENOMEM)
        throw std::bad_alloc();
    std::string reason = "'";
    reason.append(harmless(address)).append("': ").append(qor::modules::system_reason(-result));
    qorSetLastError(qorError_service_no_manager, reason.c_str());
    return false;
}

// Lets the bus go on: sends, receives, or waits.
bool systemd::connection::step() {
    if (m_has_no_memory)
        throw std::bad_alloc();
    if (m_limit.is_over())
        return silent();
    int result = sd_bus_process(m_bus.get(), nullptr);
    if (result == 0)
        result = sd_bus_wait(m_bus.get(), m_limit.left());
    return result >= 0 || result == -EINTR || lost(result);
}

bool systemd::connection::begin(const char* path, const char* interface, const char* member, message_pointer& out) {
    // All questions go to the manager that has answered the first one.
    const char* const to = m_owner.empty() ? manager_name : m_owner.c_str();
    sd_bus_message* made = nullptr;
    int result = sd_bus_message_new_method_call(m_bus.get(), &made, to, path, interface, member);
    out.reset(made);
    if (result >= 0)
        result = sd_bus_message_set_auto_start(made, 0);
    return result >= 0 || lost(result);
}

int systemd::connection::on_answer(sd_bus_message* message, void* answer, sd_bus_error*) noexcept {
    static_cast<message_pointer*>(answer)->reset(sd_bus_message_ref(message));
    return 1;
}

bool systemd::connection::exchange(sd_bus_message* question, message_pointer& answer) {
    message_pointer arrived;
    sd_bus_slot* made = nullptr;
    int result = -EINTR;
    while (result == -EINTR)
        result = sd_bus_call_async(m_bus.get(), &made, question, &on_answer, &arrived, endless);
    const std::unique_ptr<sd_bus_slot, unreferenced> slot(made); // without it, no answer arrives any more
    if (result < 0)
        return lost(result);
    while (arrived == nullptr)
        if (!step())
            return false;
    if (error_of(arrived).empty() && m_owner.empty())
        if (const char* const sender = sd_bus_message_get_sender(arrived.get()); sender != nullptr)
            m_owner = sender;
    answer = std::move(arrived);
    return true;
}

// ---- jobs

bool systemd::connection::is_from_manager(sd_bus_message* message) const noexcept {
    const char* const sender = sd_bus_message_get_sender(message);
    return sender != nullptr && !m_owner.empty() && m_owner == sender;
}

// Any process of the bus may send such a signal to this one.
int systemd::connection::on_job(sd_bus_message* message, void* context, sd_bus_error*) noexcept {
    auto& self = *static_cast<connection*>(context);
    uint32 number = 0;
    const char* path = nullptr;
    const char* unit = nullptr;
    const char* result = nullptr;
    if (!self.is_from_manager(message) || sd_bus_message_read(message, "uoss", &number, &path, &unit, &result) <= 0 ||
        *result == '\0')
        return 0;
    try {
        if (self.m_job.empty() && self.m_ended.size() < most_ended)
            self.m_ended.push_back({path, result});
        else if (self.m_job == path)
            self.m_result = result;
    } catch (const std::bad_alloc&) {
        self.m_has_no_memory = true;
    }
    return 0;
}

int systemd::connection::on_owner(sd_bus_message* message, void* context, sd_bus_error*) noexcept {
    auto& self = *static_cast<connection*>(context);
    const char* const sender = sd_bus_message_get_sender(message);
    const char* name = nullptr;
    const char* before = nullptr;
    const char* after = nullptr;
    if (sender != nullptr && std::strcmp(sender, "org.freedesktop.DBus") == 0 &&
        sd_bus_message_read(message, "sss", &name, &before, &after) > 0 && std::strcmp(name, manager_name) == 0 &&
        self.m_owner == before)
        self.m_is_gone = true;
    return 0;
}

bool systemd::connection::watch_jobs() {
    int result = sd_bus_match_signal_async(m_bus.get(), nullptr, manager_name, manager_path, manager_interface,
                                           "JobRemoved", &on_job, nullptr, this);
    if (result >= 0)
        result = sd_bus_add_match_async(m_bus.get(), nullptr,
                                        "type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/DBus',"
                                        "interface='org.freedesktop.DBus',member='NameOwnerChanged',"
                                        "arg0='org.freedesktop.systemd1'",
                                        &on_owner, nullptr, this);
    if (result < 0)
        return lost(result);
    message_pointer answer;
    // Without a subscriber the manager sends no signals.
    return ask(manager_path, manager_interface, "Subscribe", answer) && (error_of(answer).empty() || refused(answer));
}

bool systemd::connection::wait_for_job(const std::string& job, std::string& result) {
    m_job = job;
    for (const ended_job& each : m_ended)
        if (each.path == job)
            m_result = each.result;
    result.clear();
    while (m_result.empty()) {
        if (m_is_gone)
            return lost(-ENOTCONN);
        if (m_limit.is_over())
            return true;
        if (!step() && !m_limit.is_over())
            return false;
    }
    result = harmless(m_result, 100);
    return true;
}
