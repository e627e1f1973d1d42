#include "messages.h"

#include "inserts.h"
#include "terminal.h"

#include "qor/qor.h"

#include <string_view>

namespace qor::record {

namespace {

struct english_text {
    uint32 number;
    std::string_view text;
};

#define QOR_MESSAGE(number, name, text) {number, text},
constexpr english_text english[] = {
#include "qor-record.def"
};
#undef QOR_MESSAGE

// libqor has the other languages. Without it, as where only the recorder was brought to a host, the texts are English.
bool has_translations() {
    static const bool has = qor::glue::load_beside_executable() != nullptr;
    return has;
}

std::string find(uint32 number) {
    if (has_translations()) {
        qorString translated; // the first of it binds to the library
        if (translated.LoadString(message::catalog, number))
            return translated.Text();
    }
    for (const english_text& each : english)
        if (each.number == number)
            return std::string(each.text);
    return {};
}

} // namespace

std::string text_of(uint32 number, std::initializer_list<std::string> inserts) {
    return with_inserts(find(number), inserts);
}

void say(uint32 number, std::initializer_list<std::string> inserts) {
    write_text(stream::error, "record: " + text_of(number, inserts) + '\n');
}

} // namespace qor::record
