// The named folders on Linux, as defined by the environment, by the files of the XDG base directories and user
// directories, and by the file system hierarchy.
#include "folder/folder.h"

#include "folder/user_dirs.h"
#include "memory/allocator.h"
#include "message_names.h"
#include "platform/own_process.h"

#include <cerrno>
#include <cstdlib>
#include <dlfcn.h>
#include <gnu/libc-version.h>
#include <memory>
#include <mutex>
#include <pwd.h>
#include <unistd.h>
#include <vector>

namespace framework = qor::messages::framework;

namespace {

using qor::folder::clean;

struct free_memory {
    void operator()(char* memory) const noexcept { std::free(memory); }
};

std::string real_path(const char* path) {
    const std::unique_ptr<char, free_memory> real(qor::memory::found(realpath(path, nullptr)));
    return real != nullptr ? real.get() : std::string();
}

// Cached for the current user id: this look-up takes longer than anything else here, and every folder of the user may
// need it.
std::string home_of_account() {
    static std::mutex lock;
    static std::string& known = *new std::string;
    static uid_t whose = 0;
    const std::lock_guard hold(lock);
    const uid_t user = getuid();
    if (!known.empty() && whose == user)
        return known;
    known.clear();
    whose = user;
    std::vector<char> buffer(1024);
    passwd account;
    passwd* found = nullptr;
    while (getpwuid_r(user, &account, buffer.data(), buffer.size(), &found) == ERANGE)
        buffer.resize(2 * buffer.size());
    if (found != nullptr)
        known = clean(account.pw_dir);
    return known;
}

// Returns the value of a variable, or an empty path if it is not absolute.
std::string variable(const char* name) {
    const char* const value = qor::platform::environment(name);
    return value != nullptr && *value == '/' ? clean(value) : std::string();
}

// Returns a folder below another one, which may be a root; if that is unknown, so is the result.
std::string below(std::string folder, const char* name) {
    if (folder.empty())
        return {};
    if (folder.back() != '/')
        folder += '/';
    return folder + name;
}

std::string home() {
    std::string folder = variable("HOME");
    return folder.empty() ? home_of_account() : folder;
}

std::string base(const char* name, const char* below_home) {
    std::string folder = variable(name);
    return folder.empty() ? below(home(), below_home) : folder;
}

std::string configuration() { return base("XDG_CONFIG_HOME", ".config"); }
std::string data() { return base("XDG_DATA_HOME", ".local/share"); }
std::string state() { return base("XDG_STATE_HOME", ".local/state"); }

std::string temporary() {
    std::string folder = variable("TMPDIR");
    return folder.empty() ? "/tmp" : folder;
}

std::string user_dir(const char* key) {
    return clean(qor::folder::user_dir(below(configuration(), "user-dirs.dirs"), key, home()));
}

// The folder of libraries differs between distributions; the C library lies in the right one.
std::string libraries() {
    Dl_info info;
    if (dladdr(reinterpret_cast<void*>(&gnu_get_libc_version), &info) == 0 || info.dli_fname == nullptr)
        return "/usr/lib";
    const std::string path = real_path(info.dli_fname);
    return !path.empty() ? path.substr(0, path.rfind('/')) : "/usr/lib";
}

std::string path_of(qorFolderId id) {
    switch (id) {
    case qorFolder_home:
        return home();
    case qorFolder_desktop:
        return user_dir("DESKTOP");
    case qorFolder_documents:
        return user_dir("DOCUMENTS");
    case qorFolder_downloads:
        return user_dir("DOWNLOAD");
    case qorFolder_music:
        return user_dir("MUSIC");
    case qorFolder_pictures:
        return user_dir("PICTURES");
    case qorFolder_videos:
        return user_dir("VIDEOS");
    case qorFolder_public:
        return user_dir("PUBLICSHARE");
    case qorFolder_templates:
        return user_dir("TEMPLATES");
    case qorFolder_user_configuration:
        return configuration();
    case qorFolder_user_data:
        return data();
    case qorFolder_user_state:
        return state();
    case qorFolder_user_cache:
        return base("XDG_CACHE_HOME", ".cache");
    case qorFolder_user_runtime:
        return variable("XDG_RUNTIME_DIR");
    case qorFolder_user_temporary:
        return temporary();
    case qorFolder_user_logs:
        return below(state(), "log");
    case qorFolder_user_fonts:
        return below(data(), "fonts");
    case qorFolder_system_configuration:
        return "/etc";
    case qorFolder_system_data:
        return "/usr/share";
    case qorFolder_system_state:
        return "/var/lib";
    case qorFolder_system_cache:
        return "/var/cache";
    case qorFolder_system_logs:
        return "/var/log";
    case qorFolder_system_temporary:
        return "/tmp";
    case qorFolder_system_programs:
        return "/usr/bin";
    case qorFolder_system_libraries:
        return libraries();
    case qorFolder_qor_user_configuration:
        return below(configuration(), "qor");
    case qorFolder_qor_system_configuration:
        return "/etc/qor";
    default:
        return {};
    }
}

} // namespace

std::string qor::folder::system_path(qorFolderId id) {
    std::string path = path_of(id);
    if (path.empty())
        fail(id, id == qorFolder_user_runtime ? framework::no_runtime_folder : framework::no_home_folder);
    return path;
}

std::string qor::folder::clean(std::string_view path) {
    std::string cleaned(path);
    if (!cleaned.empty() && cleaned.front() != '/')
        cleaned = real_path(cleaned.c_str());
    while (cleaned.size() > 1 && cleaned.back() == '/')
        cleaned.pop_back();
    return cleaned;
}

bool qor::folder::is_absolute(std::string_view path) noexcept { return path.starts_with('/'); }

const int qor::folder::is_no_folder = ENOTDIR;
constinit const std::string_view qor::folder::separators = "/";
