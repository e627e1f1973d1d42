#include "unit.h"

#include <cerrno>
#include <csignal>
#include <cstring>

namespace {

using systemd::connection;
using systemd::lookup;
using systemd::message_pointer;
using systemd::unit;
using systemd::unit_name;

constexpr char unit_interface[] = "org.freedesktop.systemd1.Unit";
constexpr char service_interface[] = "org.freedesktop.systemd1.Service";
constexpr char no_such_unit[] = "org.freedesktop.systemd1.NoSuchUnit";

// Each reads the value of a property, which a message has inside a variant. They return a negative error number if it
// cannot be read; a property of another type than expected is passed over.
bool is_of_type(sd_bus_message* from, const char* type) noexcept {
    char kind = 0;
    const char* contents = nullptr;
    return sd_bus_message_peek_type(from, &kind, &contents) > 0 && kind == SD_BUS_TYPE_VARIANT && contents != nullptr &&
           std::strcmp(contents, type) == 0;
}

int read_text(sd_bus_message* from, std::string& out) {
    const char* text = nullptr;
    if (!is_of_type(from, "s"))
        return sd_bus_message_skip(from, "v");
    const int result = sd_bus_message_read(from, "v", "s", &text);
    if (result > 0)
        out = systemd::harmless(text);
    return result;
}

template <class NUMBER>
int read_number(sd_bus_message* from, const char* type, NUMBER& out) {
    return is_of_type(from, type) ? sd_bus_message_read(from, "v", type, &out) : sd_bus_message_skip(from, "v");
}

// An error as a name and a text.
int read_error(sd_bus_message* from, std::string& out) {
    const char* name = nullptr;
    const char* text = nullptr;
    if (!is_of_type(from, "(ss)"))
        return sd_bus_message_skip(from, "v");
    const int result = sd_bus_message_read(from, "v", "(ss)", &name, &text);
    if (result > 0)
        out = systemd::harmless(*text != '\0' ? text : name);
    return result;
}

int read_invocation(sd_bus_message* from, std::string& out) {
    if (!is_of_type(from, "ay"))
        return sd_bus_message_skip(from, "v");
    int result = sd_bus_message_enter_container(from, SD_BUS_TYPE_VARIANT, "ay");
    const void* bytes = nullptr;
    size_t size = 0;
    if (result > 0)
        result = sd_bus_message_read_array(from, 'y', &bytes, &size);
    if (result < 0)
        return result;
    out.clear();
    constexpr std::size_t size_of_number = 16;
    bool is_set = false;
    for (std::size_t i = 0; i < size && size == size_of_number; ++i) {
        constexpr char digits[] = "0123456789abcdef";
        const unsigned byte = static_cast<const unsigned char*>(bytes)[i];
        out.push_back(digits[byte >> 4]);
        out.push_back(digits[byte & 15]);
        is_set = is_set || byte != 0;
    }
    if (!is_set)
        out.clear();
    return sd_bus_message_exit_container(from);
}

int read_property(sd_bus_message* from, const char* name, unit& out) {
    const struct {
        const char* name;
        std::string unit::*text;
    } texts[] = {{"Id", &unit::id},
                 {"Description", &unit::description},
                 {"LoadState", &unit::load_state},
                 {"ActiveState", &unit::active_state},
                 {"SubState", &unit::sub_state},
                 {"Result", &unit::result}};
    for (const auto& each : texts)
        if (std::strcmp(name, each.name) == 0)
            return read_text(from, out.*each.text);
    if (std::strcmp(name, "LoadError") == 0)
        return read_error(from, out.load_error);
    if (std::strcmp(name, "InvocationID") == 0)
        return read_invocation(from, out.invocation);
    if (std::strcmp(name, "InactiveExitTimestamp") == 0)
        return read_number(from, "t", out.started);
    if (std::strcmp(name, "ExecMainCode") == 0)
        return read_number(from, "i", out.end_kind);
    if (std::strcmp(name, "ExecMainStatus") == 0)
        return read_number(from, "i", out.end_status);
    if (std::strcmp(name, "MainPID") == 0)
        return read_number(from, "u", out.process);
    return sd_bus_message_skip(from, "v");
}

int read_properties(sd_bus_message* from, unit& out) {
    int result = sd_bus_message_enter_container(from, SD_BUS_TYPE_ARRAY, "{sv}");
    while (result >= 0 && (result = sd_bus_message_enter_container(from, SD_BUS_TYPE_DICT_ENTRY, "sv")) > 0) {
        const char* name = nullptr;
        result = sd_bus_message_read(from, "s", &name);
        if (result >= 0)
            result = read_property(from, name, out);
        if (result >= 0)
            result = sd_bus_message_exit_container(from);
    }
    return result;
}

bool read_all(connection& bus, const char* interface, unit& out) {
    message_pointer answer;
    if (!bus.ask(
            out.path.c_str(), "org.freedesktop.DBus.Properties", "GetAll",
            [&](sd_bus_message* question) { return sd_bus_message_append(question, "s", interface); }, answer))
        return false;
    if (!connection::error_of(answer).empty())
        return bus.refused(answer);
    const int result = read_properties(answer.get(), out);
    return result >= 0 || bus.lost(result);
}

} // namespace

bool systemd::read_unit(connection& bus, const unit_name& name, unit& out) {
    unit found;
    found.path = out.path;
    if (!read_all(bus, unit_interface, found) || (name.is_service && !read_all(bus, service_interface, found)))
        return false;
    // Without a state, it was no answer of systemd.
    if (found.load_state.empty() || found.active_state.empty())
        return bus.lost(-EBADMSG);
    if (found.id.empty())
        found.id = name.text;
    out = std::move(found);
    return true;
}

lookup systemd::find_unit(connection& bus, const unit_name& name, unit& out) {
    message_pointer answer;
    if (!bus.ask(
            manager_path, manager_interface, "LoadUnit",
            [&](sd_bus_message* question) { return sd_bus_message_append(question, "s", name.text.c_str()); }, answer))
        return lookup::failed;
    if (const std::string_view error = connection::error_of(answer); !error.empty())
        return error == no_such_unit ? lookup::absent : (bus.refused(answer), lookup::failed);
    const char* path = nullptr;
    if (const int result = sd_bus_message_read(answer.get(), "o", &path); result <= 0) {
        bus.lost(result < 0 ? result : -EBADMSG);
        return lookup::failed;
    }
    out.path = path;
    if (!read_unit(bus, name, out))
        return lookup::failed;
    return out.is_absent() ? lookup::absent : lookup::found;
}

lookup systemd::find_template(connection& bus, const unit_name& name, unit& out) {
    message_pointer answer;
    if (!bus.ask(
            manager_path, manager_interface, "GetUnitFileState",
            [&](sd_bus_message* question) { return sd_bus_message_append(question, "s", name.text.c_str()); }, answer))
        return lookup::failed;
    if (const std::string_view error = connection::error_of(answer); !error.empty())
        return error == no_such_unit || error == SD_BUS_ERROR_FILE_NOT_FOUND ||
                       error == "org.freedesktop.systemd1.NoSuchUnitFile"
                   ? lookup::absent
                   : (bus.refused(answer), lookup::failed);
    const char* state = nullptr;
    if (const int result = sd_bus_message_read(answer.get(), "s", &state); result <= 0) {
        bus.lost(result < 0 ? result : -EBADMSG);
        return lookup::failed;
    }
    out.id = name.text;
    out.active_state = "inactive";
    out.load_state = std::string_view(state).starts_with("masked") ? "masked" : "loaded";
    return lookup::found;
}

qorServiceState systemd::state_of(const unit& which) noexcept {
    constexpr struct {
        std::string_view word;
        qorServiceState state;
    } states[] = {{"inactive", qorServiceState::inactive},    {"activating", qorServiceState::activating},
                  {"active", qorServiceState::active},        {"reloading", qorServiceState::reloading},
                  {"refreshing", qorServiceState::reloading}, {"deactivating", qorServiceState::deactivating},
                  {"maintenance", qorServiceState::inactive}, {"failed", qorServiceState::failed}};
    for (const auto& each : states)
        if (which.active_state == each.word)
            return each.state;
    return qorServiceState::unknown;
}

void systemd::fill(const unit& from, qorServiceStatus& out) {
    out.name = from.id.c_str();
    out.description = from.description.c_str();
    out.state = state_of(from);
    out.detail = from.sub_state.c_str();
    out.masked = from.is_masked();
    out.process = from.process;
    out.end = qorServiceEnd::none;
    out.code = 0;
    if (from.end_kind == CLD_EXITED)
        out.end = qorServiceEnd::exited;
    else if (from.end_kind == CLD_KILLED || from.end_kind == CLD_DUMPED)
        out.end = qorServiceEnd::killed;
    if (out.end != qorServiceEnd::none)
        out.code = from.end_status;
    out.result = from.result == "success" ? "" : from.result.c_str();
}
