#include "ipc/address.h"

#include "error/error.h"
#include "ipc/texts.h"
#include "message_names.h"

#include <algorithm>
#include <string>

namespace framework = qor::messages::framework;

bool qor::ipc::is_plain_name(std::string_view text) noexcept {
    constexpr std::size_t longest = 64;
    return !text.empty() && text.size() <= longest && text.front() != '.' &&
           std::all_of(text.begin(), text.end(), [](char c) {
               return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' ||
                      c == '_' || c == '-';
           });
}

void qor::ipc::refuse_address(const char* address, std::size_t longest_path) {
    const std::string why = text_of(framework::ipc_name_rules, std::to_string(longest_path).c_str());
    error::set(qorError_ipc_address, {address, why.c_str()});
}
