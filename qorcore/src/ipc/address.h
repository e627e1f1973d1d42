// Inside the library: the rules of addresses that both systems share.
#pragma once

#include <cstddef>
#include <string_view>

namespace qor::ipc {

// Whether it is a name that both systems take.
bool is_plain_name(std::string_view text) noexcept;

// Sets the last error.
void refuse_address(const char* address, std::size_t longest_path);

} // namespace qor::ipc
