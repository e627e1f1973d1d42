// The operations on message catalogs that clients can call.
#include "catalog/catalog.h"
#include "catalog/inserts.h"
#include "qor/qor.h"
#include "stream/text_output.h"

namespace {

std::string_view name_of(const char* catalog) noexcept { return catalog != nullptr ? catalog : ""; }

// Without a language, the user's languages apply.
std::string_view find_text(const char* catalog, uint32 number, const char* language = nullptr) {
    return language != nullptr ? qor::catalog::find_in(name_of(catalog), number, language)
                               : qor::catalog::find(name_of(catalog), number);
}

void assign(qorString& string, std::string_view text) noexcept {
    qor::glue::qorString_Set(&string, text.data(), static_cast<uint32>(text.size()));
}

// All operations return false if there is no such message; the string is then empty.
bool assign_expanded(qorString& string, std::string_view text, const char* const* inserts) {
    assign(string, qor::catalog::expand(text, inserts));
    return !text.empty();
}

} // namespace

bool qor::glue::qorString_Format(qorString* self, const char* catalog, uint32 number,
                                 const char* const* inserts) noexcept {
    return assign_expanded(*self, find_text(catalog, number), inserts);
}

bool qor::glue::qorString_FormatEx(qorString* self, const char* catalog, uint32 number, const char* language,
                                   const char* const* inserts) noexcept {
    return assign_expanded(*self, find_text(catalog, number, language), inserts);
}

void qor::glue::qorString_FormatString(qorString* self, const char* text, const char* const* inserts) noexcept {
    assign_expanded(*self, text != nullptr ? text : "", inserts);
}

bool qor::glue::qorString_LoadString(qorString* self, const char* catalog, uint32 number) noexcept {
    const std::string_view text = find_text(catalog, number);
    assign(*self, text);
    return !text.empty();
}

bool qor::glue::qorString_LoadStringEx(qorString* self, const char* catalog, uint32 number,
                                       const char* language) noexcept {
    const std::string_view text = find_text(catalog, number, language);
    assign(*self, text);
    return !text.empty();
}

bool qor::glue::fputmsg_sink(IQORStreamSink* sink, const char* catalog, uint32 number, const char* const* inserts,
                             bool newline) noexcept {
    const std::string_view text = find_text(catalog, number);
    std::string line;
    if (!text.empty()) {
        line = qor::catalog::expand(text, inserts);
    } else {
        line.append(name_of(catalog)).append(":").append(std::to_string(number));
        for (std::size_t i = 0; inserts != nullptr && i < qor::catalog::max_inserts; ++i)
            if (inserts[i] != nullptr)
                line.append(" ").append(inserts[i]);
    }
    if (newline)
        line += '\n';
    return qor::stream::write_text(*sink, line) && !text.empty();
}

bool qor::glue::fputmsg(std::FILE* stream, const char* catalog, uint32 number, const char* const* inserts,
                        bool newline) noexcept {
    stream_sink sink(stream);
    return fputmsg_sink(&sink, catalog, number, inserts, newline);
}

void qor::glue::qorGetActiveCatalogLanguages(qorStringArray& out) noexcept {
    out.Empty();
    for (const std::string& language : qor::catalog::active_languages())
        out.Append(language.c_str());
}
