#include "messages.h"

#include "inserts.h"
#include "qor/qor.h"

#include <cstdio>
#include <string_view>

namespace qor::check {
namespace {

struct english_text {
    uint32 number;
    std::string_view text;
};

#define QOR_MESSAGE(number, name, text) {number, text},
constexpr english_text english[] = {
#include "qor-check.def"
};
#undef QOR_MESSAGE

std::string find(uint32 number) {
    if (glue::is_bound()) {
        qorString translated;
        if (translated.LoadString(message::catalog, number))
            return translated.Text();
    }
    for (const english_text& each : english)
        if (each.number == number)
            return std::string(each.text);
    return {};
}

void write(std::FILE* stream, const std::string& line) {
    std::string whole = line;
    whole += '\n';
    if (glue::is_bound())
        fputtext(stream, whole.data(), whole.size());
    else
        std::fwrite(whole.data(), 1, whole.size(), stream);
}

} // namespace

std::string text_of(uint32 number, std::initializer_list<std::string> inserts) {
    return with_inserts(find(number), inserts);
}

void print(const std::string& line) { write(stdout, line); }
void complain(const std::string& line) { write(stderr, line); }

} // namespace qor::check
