// Inside the library: the messages of all catalogs in all languages, loaded on first use.
#pragma once

#include "catalog/catalog_file.h"

#include <functional> // std::less<>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace qor::catalog {

// Any thread. Each file is searched for and read once, when it is first needed; English needs no file.
class translations {
public:
    // Returns the path of a file that was installed with the library, whether the file exists or not.
    using finder = std::string (*)(std::string_view name);
    explicit translations(finder find_file) noexcept : m_find_file(find_file) {}

    // Returns the text in the first of `languages` that has it, else in English, or an empty text if there is no such
    // message. The text lives as long as this object.
    std::string_view find(std::string_view catalog, uint32 number, const std::vector<std::string>& languages);

    // Returns whether any message has a text in exactly this language, which must not be English.
    bool has(std::string_view language);

private:
    const translation& load(const built_in& catalog, std::string_view language);

    finder m_find_file;
    std::mutex m_mutex;
    std::map<std::string, translation, std::less<>> m_loaded; // by file name
};

} // namespace qor::catalog
