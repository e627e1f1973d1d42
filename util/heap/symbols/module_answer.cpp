#include "module_answer.h"

#include <cstring>

namespace qor::heap {

uint32 module_answer::number_of(std::string_view text) {
    if (text.empty())
        return 0;
    text = text.substr(0, most_text);
    if (const auto known = m_numbers.find(text); known != m_numbers.end())
        return known->second;
    const uint32 number = static_cast<uint32>(texts.size());
    texts.emplace_back(text);
    m_numbers.emplace(text, number);
    return number;
}

void module_answer::clear(std::size_t addresses) { places.assign(addresses, {}); }

namespace {

void put(std::string& out, uint64 number) {
    char bytes[sizeof number];
    std::memcpy(bytes, &number, sizeof number);
    out.append(bytes, sizeof number);
}

void put(std::string& out, std::string_view text) {
    put(out, uint64{text.size()});
    out += text;
}

class parser {
public:
    explicit parser(std::string_view bytes) : m_rest(bytes) {}

    // `most` keeps what follows within its bounds. After a fault everything is 0.
    uint64 number(uint64 most) {
        uint64 result = 0;
        if (m_rest.size() < sizeof result)
            return fail();
        std::memcpy(&result, m_rest.data(), sizeof result);
        m_rest.remove_prefix(sizeof result);
        return result <= most ? result : fail();
    }

    std::string_view text() {
        const std::size_t size = number(m_rest.size());
        if (size > m_rest.size())
            fail();
        const std::string_view result = m_rest.substr(0, m_is_good ? size : 0);
        m_rest.remove_prefix(result.size());
        return result;
    }

    std::size_t left() const { return m_rest.size(); }
    bool is_good() const { return m_is_good; }
    bool is_at_end() const { return m_is_good && m_rest.empty(); }

private:
    uint64 fail() {
        m_is_good = false;
        m_rest = {};
        return 0;
    }

    std::string_view m_rest;
    bool m_is_good = true;
};

} // namespace

std::string encoded(const module_answer& answer) {
    std::string result;
    put(result, static_cast<uint64>(answer.about.status));
    put(result, uint64{answer.about.is_unverified});
    for (const std::string* const text : {&answer.about.file, &answer.about.server, &answer.about.reason})
        put(result, *text);
    put(result, uint64{answer.texts.size()});
    for (const std::string& text : answer.texts)
        put(result, text);
    for (const auto& places : answer.places) {
        put(result, uint64{places.size()});
        for (const numbered_place& place : places) {
            put(result, uint64{place.function} << 32 | place.file);
            put(result, uint64{place.line});
        }
    }
    return result;
}

bool decode(std::string_view bytes, std::size_t addresses, module_answer& out) {
    parser in(bytes);
    out.about.status = static_cast<symbol_status>(in.number(static_cast<uint64>(symbol_status::interrupted)));
    out.about.is_unverified = in.number(1) != 0;
    for (std::string* const text : {&out.about.file, &out.about.server, &out.about.reason})
        *text = in.text();
    const uint64 texts = in.number(in.left());
    out.texts.clear();
    for (uint64 i = 0; i < texts && in.is_good(); ++i)
        out.texts.emplace_back(in.text());
    out.places.clear();
    for (std::size_t i = 0; i < addresses && in.is_good(); ++i) {
        auto& places = out.places.emplace_back(in.number(module_answer::most_places));
        for (numbered_place& place : places) {
            const uint64 numbers = in.number(~uint64{0});
            place.function = static_cast<uint32>(numbers >> 32);
            place.file = static_cast<uint32>(numbers);
            place.line = static_cast<uint32>(in.number(0xffffffff));
            if (place.function >= out.texts.size() || place.file >= out.texts.size())
                return false;
        }
    }
    return in.is_at_end() && out.texts.size() == texts;
}

} // namespace qor::heap
