#include "common/system_reason.h"
#include "common/wide_windows.h"

#include <iterator>
#include <windows.h>

namespace {

class category final : public std::error_category {
public:
    const char* name() const noexcept override { return "system"; }
    std::string message(int code) const override { return qor::modules::system_reason(code); }
};

} // namespace

const std::error_category& qor::modules::system_category() noexcept {
    static const category made;
    return made;
}

std::string qor::modules::system_reason(int code) {
    wchar_t wide[512];
    const DWORD length = FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                                        static_cast<DWORD>(code), 0, wide, std::size(wide), nullptr);
    std::string reason = from_wide({wide, length});
    // The text ends with a full stop and a line end.
    reason.erase(reason.find_last_not_of(" .\r\n") + 1);
    return reason.empty() ? "error " + std::to_string(code) : reason;
}
