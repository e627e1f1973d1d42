#include "ipc/address_posix.h"

#include "error/error.h"
#include "ipc/address.h"
#include "ipc/texts.h"
#include "message_names.h"
#include "platform/own_process.h"

#include <cerrno>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace framework = qor::messages::framework;

namespace {

constexpr std::size_t longest_path = sizeof(sockaddr_un::sun_path) - 1;

// A folder that only this user can change. `is_missing` also if something on the way is.
bool is_private(const std::string& path, bool& is_missing) noexcept {
    struct stat info {};
    if (lstat(path.c_str(), &info) != 0) {
        is_missing = true;
        return false;
    }
    is_missing = false;
    return S_ISDIR(info.st_mode) && info.st_uid == geteuid() && (info.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

// The folder of the user's session, without regard to whether it can be used.
std::string parent() {
    if (const char* const given = qor::platform::environment("XDG_RUNTIME_DIR"); given != nullptr && *given == '/')
        return given;
    std::string usual = "/run/user/";
    usual.append(std::to_string(geteuid()));
    bool is_missing = false;
    return is_private(usual, is_missing) ? usual : std::string();
}

bool refuse_folder(const std::string& path) {
    const std::string why = qor::ipc::text_of(framework::ipc_open_to_others);
    qor::error::set(qorError_ipc_folder, {path.c_str(), why.c_str()});
    return false;
}

// In /tmp, another user can take the name first, and gets an error in return; nobody can replace what is there.
bool get_folder(std::string& path, bool make) {
    path = parent();
    bool is_missing = false;
    if (path.empty()) {
        path.append("/tmp/qor-").append(std::to_string(geteuid()));
    } else {
        if (!is_private(path, is_missing))
            return refuse_folder(path);
        path.append("/qor");
    }
    if (is_private(path, is_missing))
        return true;
    if (!is_missing)
        return refuse_folder(path);
    if (!make || mkdir(path.c_str(), S_IRWXU) == 0)
        return true;
    if (errno == EEXIST && is_private(path, is_missing))
        return true;
    qor::error::set_with_reason(qorError_ipc_folder, path.c_str(), errno);
    return false;
}

} // namespace

std::string qor::ipc::socket_path(const char* address, bool for_server) {
    std::string_view rest = address;
    if (rest.starts_with("unix:"))
        rest.remove_prefix(5);
    std::string path;
    if (rest.starts_with('/')) {
        path = rest;
    } else if (!is_plain_name(rest)) {
        refuse_address(address, longest_path);
        return {};
    } else if (get_folder(path, for_server)) {
        path.append("/").append(rest);
    } else {
        return {};
    }
    if (path.size() <= longest_path)
        return path;
    refuse_address(address, longest_path);
    return {};
}
