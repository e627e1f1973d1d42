// The messages of the process: its languages, and the catalogs installed with the library.
#include "catalog/catalog.h"

#include "catalog/inserts.h"
#include "catalog/languages.h"
#include "catalog/translations.h"
#include "catalog/user_settings.h"
#include "message_names.h"
#include "platform/resources.h"

namespace {

namespace framework = qor::messages::framework;
using qor::catalog::translations;
using qor::catalog::user_setting;

// Both are never destroyed: messages are printed until the process ends, even by its last clean-up routines.
translations& all_texts() {
    static auto& texts = *new translations(&qor::platform::find_resource);
    return texts;
}

std::vector<std::string>& wanted_languages() {
    static auto& languages = *new auto(qor::catalog::languages_of_environment(&user_setting));
    return languages;
}

} // namespace

std::string_view qor::catalog::find(std::string_view catalog, uint32 number) {
    return all_texts().find(catalog, number, wanted_languages());
}

std::string_view qor::catalog::find_in(std::string_view catalog, uint32 number, std::string_view language) {
    return all_texts().find(catalog, number, with_fallbacks(language));
}

std::string qor::catalog::expand(std::string_view text, const char* const* inserts) {
    std::string result;
    while (!text.empty()) {
        if (const insert place = leading_insert(text); place.length != 0) {
            const char* const content = inserts != nullptr ? inserts[place.number - 1] : nullptr;
            result += content != nullptr ? content : "";
            text.remove_prefix(place.length);
        } else {
            result += text.front();
            text.remove_prefix(1);
        }
    }
    return result;
}

bool qor::catalog::set_languages(std::string_view list, std::string& why) {
    std::string_view refused;
    if (parse_languages(list, wanted_languages(), refused))
        return true;
    const std::string name(refused);
    const char* const inserts[max_inserts] = {name.c_str()};
    why =
        expand(find(framework::catalog, name.empty() ? framework::no_language : framework::bad_language_name), inserts);
    return false;
}

std::vector<std::string> qor::catalog::active_languages() {
    std::vector<std::string> active;
    for (const std::string& language : wanted_languages())
        if (all_texts().has(language))
            active.push_back(language);
    active.emplace_back("en");
    return active;
}
