// Splitting into words and fields, against plain loops. The first byte of an input is the separator of
// fields.
#include "qor/qor.h"

#include <cstdint>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

namespace {

using texts = std::vector<std::string>;

void require(bool agreed) {
    if (!agreed)
        std::abort();
}

std::string bytes(const qorString& text) { return {text.Text(), text.Length()}; }

texts list(const qorStringArray& array) {
    texts all;
    for (uint32 i = 0; i < array.GetCount(); ++i)
        all.push_back(bytes(array.m_data.elements[i]));
    return all;
}

bool is_blank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r'; }

texts plain_words(const std::string& text) {
    texts all;
    std::string word;
    for (const char c : text + ' ') {
        if (!is_blank(c))
            word += c;
        else if (!word.empty())
            all.push_back(std::exchange(word, ""));
    }
    return all;
}

texts plain_fields(const std::string& text, char separator) {
    texts all;
    if (!text.empty())
        all.emplace_back();
    for (const char c : text) {
        if (c == separator)
            all.emplace_back();
        else
            all.back() += c;
    }
    return all;
}

std::string plain_trimmed(std::string text) {
    while (!text.empty() && is_blank(text.front()))
        text.erase(0, 1);
    while (!text.empty() && is_blank(text.back()))
        text.pop_back();
    return text;
}

// One array for all inputs, as a reader of lines has it: nothing of an earlier one may show.
qorStringArray& kept_array() {
    static qorStringArray array;
    return array;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const char separator = size != 0 ? static_cast<char>(data[0]) : ',';
    const std::string plain(reinterpret_cast<const char*>(data), size);
    qorString text(plain.data(), static_cast<int32>(size));
    qorStringArray& array = kept_array();

    const texts words = plain_words(plain);
    require(text.Tokenise_WS(array) && list(array) == words);
    const texts fields = plain_fields(plain, separator);
    require(text.TokeniseAtByte(separator, array) && list(array) == fields);

    qorString left, right;
    const std::size_t end = plain.find(separator);
    require(text.SplitAtByte(separator, left, right) == (end != plain.npos));
    require(bytes(left) == plain.substr(0, end));
    require(bytes(right) == (end != plain.npos ? plain.substr(end + 1) : ""));

    // The same with the string as one of its own parts.
    qorString own = text;
    own.SplitAtByte(separator, left, own);
    require(bytes(own) == bytes(right));
    own = text;
    own.SplitAtByte(separator, own, right);
    require(bytes(own) == bytes(left));

    own = text;
    own.TrimBoth();
    require(bytes(own) == plain_trimmed(plain));

    texts taken;
    qorString token;
    while (text.ExtractFirstToken_WS(token))
        taken.push_back(bytes(token));
    require(taken == words && text.IsEmpty());
    return 0;
}
