#include "catalog/translations.h"

std::string_view qor::catalog::translations::find(std::string_view catalog, uint32 number,
                                                  const std::vector<std::string>& languages) {
    const built_in* const known = find_catalog(catalog);
    const message* const original = known != nullptr ? find_message(known->messages, number) : nullptr;
    if (original == nullptr)
        return {};
    const auto place = static_cast<std::size_t>(original - known->messages.data());
    for (const std::string& language : languages) {
        const translation& texts = load(*known, language);
        if (!texts.empty() && !texts[place].empty())
            return texts[place];
    }
    return original->text;
}

bool qor::catalog::translations::has(std::string_view language) {
    return any_catalog([&](const built_in& each) { return !load(each, language).empty(); });
}

const qor::catalog::translation& qor::catalog::translations::load(const built_in& catalog, std::string_view language) {
    std::string name(catalog.name);
    name.append(".").append(language).append(".msg");

    const std::lock_guard lock(m_mutex);
    const auto [entry, is_new] = m_loaded.try_emplace(std::move(name));
    if (is_new) {
        // A missing file is remembered too, as a translation without texts.
        const std::string path =
            catalog.folder.empty() ? m_find_file(entry->first) : std::string(catalog.folder).append(entry->first);
        entry->second = load_catalog(path, catalog.messages);
    }
    return entry->second;
}
