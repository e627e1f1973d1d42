// All catalogs: the framework's, and those that modules and programs have added.
#include "catalog/catalog.h"

#include <algorithm>
#include <atomic>
#include <forward_list>
#include <mutex>

namespace {

using qor::catalog::built_in;
using qor::catalog::message;

struct added {
    std::string name;
    std::string folder;
    std::forward_list<std::string> texts; // which do not move
    std::vector<message> messages;
    built_in catalog;
    const added* next;
};

// Only grows, so it is read without a lock.
std::atomic<const added*> s_added{nullptr};

bool is_same(const built_in& left, std::span<const message> messages, std::string_view folder) noexcept {
    return left.folder == folder &&
           std::ranges::equal(left.messages, messages, [](const message& one, const message& other) {
               return one.number == other.number && one.text == other.text;
           });
}

} // namespace

bool qor::catalog::add(std::string_view name, std::span<const message> messages, std::string_view folder) {
    static std::mutex lock;
    const std::lock_guard hold(lock);
    if (const built_in* const there = find_catalog(name))
        return is_same(*there, messages, folder);
    auto& made = *new added{std::string(name), std::string(folder), {}, {}, {}, s_added.load()};
    made.messages.reserve(messages.size());
    for (const message& each : messages)
        made.messages.push_back({each.number, made.texts.emplace_front(each.text)});
    made.catalog = {made.name, made.messages, made.folder};
    s_added.store(&made);
    return true;
}

bool qor::catalog::any_catalog(const std::function<bool(const built_in& catalog)>& visit) {
    for (const built_in& each : english())
        if (visit(each))
            return true;
    for (const added* each = s_added.load(); each != nullptr; each = each->next)
        if (visit(each->catalog))
            return true;
    return false;
}

const qor::catalog::built_in* qor::catalog::find_catalog(std::string_view name) noexcept {
    for (const built_in& each : english())
        if (each.name == name)
            return &each;
    for (const added* each = s_added.load(); each != nullptr; each = each->next)
        if (each->name == name)
            return &each->catalog;
    return nullptr;
}
