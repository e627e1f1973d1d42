// Inside the library: the messages of all catalogs in all languages, read when they are first asked for.
#pragma once

#include "catalog/catalog_file.h"

#include <functional> // std::less<>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace qor::catalog {

// Any thread. Each file is looked for and read once, at the first question that needs it; English needs none.
class translations {
public:
    // The path of a file that came with the library, where it is or where it would be.
    using finder = std::string (*)(std::string_view name);
    explicit translations(finder find_file) noexcept : m_find_file(find_file) {}

    // The text in the first of `languages` that has it, at last in English; empty: there is no such message.
    // The text lives as long as this object.
    std::string_view find(std::string_view catalog, uint32 number, const std::vector<std::string>& languages);

    // Whether any message has a text in this very language, which is not English.
    bool has(std::string_view language);

private:
    const translation& load(std::string_view catalog, std::string_view language, std::span<const message> messages);

    finder m_find_file;
    std::mutex m_mutex;
    std::map<std::string, translation, std::less<>> m_loaded; // by file name
};

} // namespace qor::catalog
