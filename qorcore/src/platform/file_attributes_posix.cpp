#include "platform/file_attributes.h"

#include "platform/uninterrupted_posix.h"

#include <cerrno>
#include <string_view>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace {

using qor::platform::uninterrupted;

constexpr char access_list[] = "system.posix_acl_access";

// Whether an attribute is an access control list, of POSIX or of NFS 4.
bool grants_access(std::string_view name) noexcept { return name == access_list || name.starts_with("system.nfs4_"); }

// The system drops the first one when it writes to a file; the others are checksums of the content.
bool depends_on_content(std::string_view name) noexcept {
    return name == "security.capability" || name == "security.ima" || name == "security.evm";
}

// Whether an attribute is missing, or is not for this process or not for this file system.
bool is_out_of_reach(int reason) noexcept {
    return reason == EPERM || reason == EACCES || reason == ENOTSUP || reason == EINVAL || reason == ENODATA;
}

// Stores at `out` what `call` gives for a buffer. The length may change between two calls.
template <class CALL>
int get(CALL call, std::string& out) {
    for (;;) {
        ssize_t length = uninterrupted([&] { return call(nullptr, 0); });
        if (length > 0) {
            out.resize(static_cast<std::size_t>(length));
            length = uninterrupted([&] { return call(out.data(), out.size()); });
        }
        if (length >= 0) {
            out.resize(static_cast<std::size_t>(length));
            return 0;
        }
        if (errno != ERANGE)
            return errno;
    }
}

} // namespace

int qor::platform::file_attributes::read(const char* path) {
    m_named.clear();
    struct stat status;
    if (lstat(path, &status) != 0)
        return errno;
    m_rights = status.st_mode & 07777;
    m_owner = status.st_uid;
    m_group = status.st_gid;
    std::string names;
    if (const int reason = get([path](char* out, std::size_t size) { return llistxattr(path, out, size); }, names))
        return reason == ENOTSUP ? 0 : reason;
    for (std::string_view rest = names; !rest.empty();) {
        const std::string name(rest.substr(0, rest.find('\0')));
        rest.remove_prefix(name.size() + 1);
        if (depends_on_content(name))
            continue;
        std::string value;
        const int reason =
            get([&](char* out, std::size_t size) { return lgetxattr(path, name.c_str(), out, size); }, value);
        if (reason == 0)
            m_named.emplace_back(name, value);
        else if (reason != ENODATA && (grants_access(name) || !is_out_of_reach(reason)))
            return reason;
    }
    return 0;
}

int qor::platform::file_attributes::write(std::intptr_t handle) const {
    const int file = static_cast<int>(handle);
    unsigned rights = m_rights;
    // Only a super-user may give files away; others keep at least the group, if they belong to it. A change of the
    // owner removes rights and attributes, so it comes first. A program must not run as another user than before.
    if (uninterrupted([&] { return fchown(file, m_owner, m_group); }) != 0) {
        rights &= ~unsigned{S_ISUID | S_ISGID};
        (void)!uninterrupted([&] { return fchown(file, static_cast<uid_t>(-1), m_group); });
    }
    bool has_list = false;
    for (const auto& [name, value] : m_named) {
        has_list |= name == access_list;
        if (uninterrupted([&] { return fsetxattr(file, name.c_str(), value.data(), value.size(), 0); }) != 0 &&
            (grants_access(name) || !is_out_of_reach(errno)))
            return errno;
    }
    // The folder may have a list for new files.
    if (!has_list && uninterrupted([file] { return fremovexattr(file, access_list); }) != 0 && !is_out_of_reach(errno))
        return errno;
    return uninterrupted([&] { return fchmod(file, rights); }) == 0 ? 0 : errno;
}
