#include "catalog/translations.h"

#include <algorithm>

namespace {

// Returns an empty span if there is no such catalog.
std::span<const qor::catalog::message> messages_of(std::string_view catalog) noexcept {
    const auto all = qor::catalog::english();
    const auto found = std::ranges::find(all, catalog, &qor::catalog::built_in::name);
    return found != all.end() ? found->messages : std::span<const qor::catalog::message>();
}

} // namespace

std::string_view qor::catalog::translations::find(std::string_view catalog, uint32 number,
                                                  const std::vector<std::string>& languages) {
    const std::span<const message> messages = messages_of(catalog);
    const message* const original = find_message(messages, number);
    if (original == nullptr)
        return {};
    const auto place = static_cast<std::size_t>(original - messages.data());
    for (const std::string& language : languages) {
        const translation& texts = load(catalog, language, messages);
        if (!texts.empty() && !texts[place].empty())
            return texts[place];
    }
    return original->text;
}

bool qor::catalog::translations::has(std::string_view language) {
    return std::ranges::any_of(english(),
                               [&](const built_in& each) { return !load(each.name, language, each.messages).empty(); });
}

const qor::catalog::translation& qor::catalog::translations::load(std::string_view catalog, std::string_view language,
                                                                  std::span<const message> messages) {
    std::string name(catalog);
    name.append(".").append(language).append(".msg");

    const std::lock_guard lock(m_mutex);
    const auto [entry, is_new] = m_loaded.try_emplace(std::move(name));
    if (is_new) {
        // A missing file is remembered too, as a translation without texts.
        entry->second = load_catalog(m_find_file(entry->first), messages);
    }
    return entry->second;
}
