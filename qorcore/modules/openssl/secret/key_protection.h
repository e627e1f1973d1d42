// Inside the module qor-openssl: how a key is kept in its file. Reasons are in the user's language.
#pragma once

#include <string>
#include <string_view>

namespace qor::secret {

// Windows: encrypts a key by the system's data protection, so that only this user can read it. Elsewhere it stays as it
// is: the file's rights protect it. The caller wipes `out`.
bool protect(std::string_view key, std::string& out, std::string& reason);
bool unprotect(std::string_view stored, std::string& key, std::string& reason);

// Whether neither the file nor its folder is a link. They may be missing.
bool has_no_link(const std::string& path, std::string& reason);

} // namespace qor::secret
