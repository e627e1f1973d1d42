// The English text of every message, compiled in. It is printed if no other language has the message, and every
// translation is checked against it.
#include "catalog/catalog.h"
#include "message_names.h"

#include <algorithm>
#include <functional>

namespace {

using qor::catalog::built_in;
using qor::catalog::message;

#define QOR_MESSAGE(number, name, text) {number, text},

constexpr message tool[] = {
#include "qortool.def"
};

constexpr message debug_user[] = {
#include "qor-debug-user.def"
};

constexpr message record[] = {
#include "qor-record.def"
};

constexpr message heap_page[] = {
#include "qor-heap-page.def"
};

constexpr message heap[] = {
#include "qor-heap.def"
};

constexpr message check[] = {
#include "qor-check.def"
};

constexpr message framework[] = {
#define QOR_ERROR(number, name, error_class, text) {number, text},
#include "qor/system/errors.def"
#undef QOR_ERROR
#include "qorcore.def"
};

#undef QOR_MESSAGE

namespace messages = qor::messages;
constexpr built_in catalogs[] = {{messages::framework::catalog, framework},
                                 {messages::tool::catalog, tool},
                                 {messages::debug_user::catalog, debug_user},
                                 {messages::record::catalog, record},
                                 {messages::heap_page::catalog, heap_page},
                                 {messages::heap::catalog, heap},
                                 {messages::check::catalog, check}};

// Look-ups are binary searches, and an empty text would count as a missing message.
static_assert(std::ranges::all_of(catalogs, [](const built_in& each) {
    return std::ranges::adjacent_find(each.messages, std::ranges::greater_equal(), &message::number) ==
               each.messages.end() &&
           std::ranges::none_of(each.messages, &std::string_view::empty, &message::text);
}));

} // namespace

std::span<const qor::catalog::built_in> qor::catalog::english() noexcept { return catalogs; }

const message* qor::catalog::find_message(std::span<const message> messages, uint32 number) noexcept {
    const auto found = std::ranges::lower_bound(messages, number, {}, &message::number);
    return found != messages.end() && found->number == number ? &*found : nullptr;
}
