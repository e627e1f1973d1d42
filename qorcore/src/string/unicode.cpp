// Strings: UTF-8, and conversions to and from the other encodings.
#include "string/unicode.h"
#include "memory/allocator.h"
#include "string/string_data.h"

#include <cstring>

namespace {

constexpr char this_file[] = "qorcore/src/string/unicode";

// The bytes that must follow a lead byte: their number, and the range of the first of them. The range excludes overlong
// forms (E0, F0), surrogates (ED) and numbers beyond 10FFFF (F4).
struct promise {
    uint32 following;
    unsigned char low;
    unsigned char high;
};

constexpr promise promise_of(unsigned char lead) noexcept {
    if (lead >= 0xc2 && lead <= 0xdf)
        return {1, 0x80, 0xbf};
    if (lead >= 0xe0 && lead <= 0xef)
        return {2, static_cast<unsigned char>(lead == 0xe0 ? 0xa0 : 0x80),
                static_cast<unsigned char>(lead == 0xed ? 0x9f : 0xbf)};
    if (lead >= 0xf0 && lead <= 0xf4)
        return {3, static_cast<unsigned char>(lead == 0xf0 ? 0x90 : 0x80),
                static_cast<unsigned char>(lead == 0xf4 ? 0x8f : 0xbf)};
    return {0, 0, 0};
}

// Units of the other encodings. `next` reads a character and advances; for an invalid sequence it returns the
// replacement character and reports that. `put` writes a character and returns the position behind it.
struct utf16 {
    using unit = uint16;

    static uint32 next(const unit*& at, const unit* end, bool& valid) noexcept {
        const uint32 high = *at++;
        if (high < 0xd800 || high > 0xdfff)
            return high;
        if (high <= 0xdbff && at != end && *at >= 0xdc00 && *at <= 0xdfff)
            return 0x10000 + ((high - 0xd800) << 10) + (*at++ - 0xdc00u);
        valid = false;
        return qor::string::replacement_character;
    }

    static uint32 units(uint32 character) noexcept { return character < 0x10000 ? 1 : 2; }

    static unit* put(unit* out, uint32 character) noexcept {
        if (character < 0x10000) {
            *out++ = static_cast<unit>(character);
        } else {
            *out++ = static_cast<unit>(0xd800 + ((character - 0x10000) >> 10));
            *out++ = static_cast<unit>(0xdc00 + ((character - 0x10000) & 0x3ff));
        }
        return out;
    }
};

struct utf32 {
    using unit = uint32;

    static uint32 next(const unit*& at, const unit*, bool& valid) noexcept {
        const uint32 character = *at++;
        if (qor::string::is_character(character))
            return character;
        valid = false;
        return qor::string::replacement_character;
    }

    static uint32 units(uint32) noexcept { return 1; }

    static unit* put(unit* out, uint32 character) noexcept {
        *out++ = character;
        return out;
    }
};

template <class SET>
bool set_from(qorString& self, const typename SET::unit* text, int32 length) noexcept {
    const typename SET::unit* end = text;
    if (text != nullptr && length >= 0)
        end += length;
    else if (text != nullptr)
        while (*end != 0)
            ++end;

    // Built separately, because the source may lie in this string's storage.
    qorString made;
    bool valid = true;
    for (const typename SET::unit* at = text; at != end;) {
        char bytes[4];
        const uint32 size = qor::string::encode(SET::next(at, end, valid), bytes);
        qor::glue::qorString_Append(&made, bytes, size);
    }
    self = static_cast<qorString&&>(made);
    return valid;
}

template <class SET>
bool get_as(const qorString& self, qorDataBlock& out) noexcept {
    uint64 count = 1;
    bool valid = true;
    for (std::string_view rest = qor::string::view(self); !rest.empty();) {
        const qor::string::decoded next = qor::string::decode(rest);
        count += SET::units(next.character);
        valid = valid && next.valid;
        rest.remove_prefix(next.size);
    }

    const uint64 size = count * sizeof(typename SET::unit);
    if (size > 0xffffffff)
        qor::memory::exhausted(size, this_file, __LINE__);
    auto* at = static_cast<typename SET::unit*>(qor::memory::require(size, this_file, __LINE__));
    out.Attach(at, static_cast<uint32>(size));
    for (std::string_view rest = qor::string::view(self); !rest.empty();) {
        const qor::string::decoded next = qor::string::decode(rest);
        at = SET::put(at, next.character);
        rest.remove_prefix(next.size);
    }
    *at = 0;
    return valid;
}

} // namespace

qor::string::decoded qor::string::decode(std::string_view text) noexcept {
    const auto byte = [text](std::size_t i) noexcept { return static_cast<unsigned char>(text[i]); };
    const unsigned char lead = byte(0);
    if (lead < 0x80)
        return {lead, 1, true};

    const promise promised = promise_of(lead);
    uint32 character = lead & (0x3fu >> promised.following);
    uint32 size = 1;
    unsigned char low = promised.low;
    unsigned char high = promised.high;
    while (size <= promised.following) {
        if (size == text.size() || byte(size) < low || byte(size) > high)
            return {replacement_character, size, false};
        character = character << 6 | (byte(size) & 0x3fu);
        low = 0x80;
        high = 0xbf;
        ++size;
    }
    return promised.following != 0 ? decoded{character, size, true} : decoded{replacement_character, 1, false};
}

uint32 qor::string::encode(uint32 character, char (&out)[4]) noexcept {
    if (!is_character(character))
        return 0;
    if (character < 0x80) {
        out[0] = static_cast<char>(character);
        return 1;
    }
    const uint32 size = character < 0x800 ? 2 : character < 0x10000 ? 3 : 4;
    for (uint32 i = size - 1; i > 0; --i) {
        out[i] = static_cast<char>(0x80 | (character & 0x3f));
        character >>= 6;
    }
    // The lead byte: as many one bits as there are bytes, then a zero bit.
    out[0] = static_cast<char>((0xf00u >> size & 0xff) | character);
    return size;
}

bool qor::glue::qorString_SetUCS2(qorString* self, const uint16* text, int32 length) noexcept {
    return set_from<utf16>(*self, text, length);
}

bool qor::glue::qorString_SetUCS4(qorString* self, const uint32* text, int32 length) noexcept {
    return set_from<utf32>(*self, text, length);
}

bool qor::glue::qorString_GetAsUCS2(const qorString* self, qorDataBlock& out) noexcept {
    return get_as<utf16>(*self, out);
}

bool qor::glue::qorString_GetAsUCS4(const qorString* self, qorDataBlock& out) noexcept {
    return get_as<utf32>(*self, out);
}
