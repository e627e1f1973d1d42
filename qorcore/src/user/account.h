// Inside the library: accounts of the host, the data of the tokens.
#pragma once

#include "qor/qor.h"

#include <functional>
#include <string>
#include <vector>

namespace qor::user {

struct account {
    std::string name;
    std::string description;
    std::vector<std::string> groups;
    bool is_super_user = false;
    int32 level = qorAuthLevel_user;
};

// ---- the seam to the system. On false, the last error gives the reason.

bool find_account(const char* name, account& out);

// Reads an account that is known already.
using account_reader = std::function<bool(account& out)>;

// The account that this process runs as now. Reading it may take a server's time, and not all callers need it.
bool current_account(account_reader& out);
bool current_name(std::string& out);
bool is_super_user() noexcept;

// Returns the account if the password is right and the account may be used.
bool log_on(const char* name, const char* password, account& out);

} // namespace qor::user
