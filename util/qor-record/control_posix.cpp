#include "control.h"

#include "log_names.h"
#include "messages.h"
#include "unix_socket.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace qor::record {

std::string control_name(const log_names& names) {
    const std::string& path = names.path();
    const std::size_t slash = path.rfind('/');
    struct stat folder;
    if (::stat(path.substr(0, slash + 1).c_str(), &folder) != 0)
        return {};
    // A name of any length as a number: those of other recordings in this folder are other ones.
    std::uint64_t number = 14695981039346656037U;
    for (const char c : path.substr(slash + 1))
        number = (number ^ static_cast<unsigned char>(c)) * 1099511628211U;
    char name[100];
    std::snprintf(name, sizeof name, "qor-record/%llx/%llx/%llx", static_cast<unsigned long long>(folder.st_dev),
                  static_cast<unsigned long long>(folder.st_ino), static_cast<unsigned long long>(number));
    return name;
}

int control(int argc, char** argv) {
    const std::string word = argc == 2 ? argv[1] : "";
    if (word != "start" && word != "stop") {
        say(message::control_usage);
        return 1;
    }
    log_names names;
    const std::string prefix = argv[0];
    if (prefix.empty() || prefix.back() == '/' || !names.set(prefix, {}, compression::format::none)) {
        say(message::no_recording, {prefix});
        return 1;
    }
    const int connection = connect_to(control_name(names));
    if (connection < 0) {
        say(message::no_recording, {prefix});
        return 1;
    }
    // Anybody may give a socket a name.
    peer other;
    const bool is_trusted = peer_of(connection, other) && (other.user == ::geteuid() || other.user == 0);
    const bool is_done = is_trusted && send_text(connection, word) && receive(connection, 16) == "done";
    ::close(connection);
    if (!is_done) {
        say(message::no_control, {prefix, std::strerror(is_trusted ? EPERM : EACCES)});
        return 1;
    }
    say(word == "start" ? message::control_started : message::control_stopped, {prefix});
    return 0;
}

} // namespace qor::record
