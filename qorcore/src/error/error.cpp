// The last error of each thread.
#include "error/error.h"

#include "error/error_state.h"
#include "platform/own_process.h"

#include <algorithm>
#include <iterator>
#include <string_view>
#include <utility>

namespace {

struct definition {
    uint32 number;
    qorErrorClass error_class;
};

constexpr definition definitions[] = {
#define QOR_ERROR(number, name, error_class, text) {number, qorErrorClass::error_class},
#include "qor/system/errors.def"
#undef QOR_ERROR
};

static_assert(std::is_sorted(std::begin(definitions), std::end(definitions),
                             [](const definition& a, const definition& b) { return a.number < b.number; }));

const definition* find_definition(uint32 number) noexcept {
    const auto* const found = std::lower_bound(std::begin(definitions), std::end(definitions), number,
                                               [](const definition& a, uint32 wanted) { return a.number < wanted; });
    return found != std::end(definitions) && found->number == number ? found : nullptr;
}

// Exit handlers run after the main thread's own objects have been destroyed, and they too may fail and report. So the
// main thread's error is never freed; the error of any other thread is freed when the thread ends.
thread_local qor::error::state* last_error = nullptr;

void forget_last_error() { delete std::exchange(last_error, nullptr); }

qor::error::state& own_state() {
    if (last_error == nullptr) {
        last_error = new qor::error::state;
        if (!qor::platform::is_main_thread())
            qor::platform::at_thread_end(forget_last_error);
    }
    return *last_error;
}

} // namespace

qor::error::state::state(uint32 wanted, const char* const* texts)
    : number(find_definition(wanted) != nullptr ? wanted : uint32{qorError_unknown}) {
    if (texts == nullptr)
        return;
    for (uint32 i = 0; i < max_inserts; ++i)
        inserts[i] = texts[i] != nullptr ? texts[i] : "";
}

qorErrorClass qor::error::state::error_class() const noexcept { return find_definition(number)->error_class; }

const qor::error::state& qor::error::current() noexcept { return own_state(); }

void qor::error::make_current(const state& error) noexcept { own_state() = error; }

qor::error::apart::apart() noexcept : m_before(current()) { set(qorError_none); }

void qor::error::set(qorErrorNumber number, std::initializer_list<const char*> inserts) noexcept {
    const char* texts[state::max_inserts] = {};
    std::copy_n(inserts.begin(), std::min<std::size_t>(inserts.size(), state::max_inserts), texts);
    own_state() = state(number, texts);
}

void qor::error::set_with_reason(qorErrorNumber number, const char* subject, int code) noexcept {
    set(number, {subject, system_reason(code).c_str()});
}

void qor::glue::qorSetLastError(uint32 number, const char* const* inserts) noexcept {
    own_state() = qor::error::state(number, inserts);
}

void qor::glue::qorClearLastError() noexcept { own_state() = {}; }

bool qor::glue::qorGetLastErrorInsert(uint32 index, qorString& out) noexcept {
    const error::state& last = own_state();
    const bool exists = index >= 1 && index <= error::state::max_inserts && !last.inserts[index - 1].empty();
    const std::string_view text = exists ? std::string_view(last.inserts[index - 1]) : std::string_view();
    qorString_Set(&out, text.data(), static_cast<uint32>(text.size()));
    return exists;
}
