#include "secret/key_protection.h"

#include "login/private_file.h"

#include <sys/stat.h>

bool qor::secret::protect(std::string_view key, std::string& out, std::string&) {
    out = key;
    return true;
}

bool qor::secret::unprotect(std::string_view stored, std::string& key, std::string&) {
    key = stored;
    return true;
}

bool qor::secret::has_no_link(const std::string& path, std::string& reason) {
    for (const std::string& each : {path.substr(0, path.rfind('/')), path}) {
        struct stat status;
        if (lstat(each.c_str(), &status) == 0 && S_ISLNK(status.st_mode)) {
            reason = control::reason_of(control::private_file_fault::no_plain_file);
            return false;
        }
    }
    return true;
}
