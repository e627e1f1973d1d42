// Conversions between UTF-8 and the other character sets, against a plain implementation that tries every
// number of bytes and computes instead of knowing ranges.
#include "qor/qor.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr char32_t replacement = 0xfffd;
constexpr char32_t least[] = {0, 0, 0x80, 0x800, 0x10000};

bool is_character(char32_t value) { return value <= 0x10ffff && !(value >= 0xd800 && value <= 0xdfff); }

int promised_size(unsigned char lead) {
    return lead < 0x80 ? 1 : lead < 0xc0 ? 0 : lead < 0xe0 ? 2 : lead < 0xf0 ? 3 : lead < 0xf8 ? 4 : 0;
}

// The number that `bytes`, filled up with `filler`, stand for.
char32_t number(const std::string& bytes, int size, unsigned char filler) {
    char32_t value = static_cast<unsigned char>(bytes[0]) & (size == 1 ? 0x7f : 0xff >> (size + 1));
    for (int i = 1; i < size; ++i)
        value = value << 6 | ((i < static_cast<int>(bytes.size()) ? bytes[i] : filler) & 0x3f);
    return value;
}

// Whether some character begins with these bytes, or is these bytes.
bool may_begin_character(const std::string& bytes) {
    const int size = promised_size(static_cast<unsigned char>(bytes[0]));
    if (size == 0 || static_cast<int>(bytes.size()) > size)
        return false;
    for (std::size_t i = 1; i < bytes.size(); ++i)
        if ((bytes[i] & 0xc0) != 0x80)
            return false;
    const char32_t lowest = number(bytes, size, 0x80), highest = number(bytes, size, 0xbf);
    for (char32_t value = lowest; value <= highest; ++value)
        if (value >= least[size] && is_character(value))
            return true;
    return false;
}

bool plain_decode(const std::string& text, std::u32string& out) {
    bool valid = true;
    for (std::size_t at = 0; at < text.size();) {
        std::size_t size = 1;
        while (at + size < text.size() && may_begin_character(text.substr(at, size + 1)))
            ++size;
        const std::string taken = text.substr(at, size);
        const int promised = promised_size(static_cast<unsigned char>(taken[0]));
        if (may_begin_character(taken) && static_cast<int>(size) == promised) {
            out += number(taken, promised, 0);
        } else {
            out += replacement;
            valid = false;
        }
        at += size;
    }
    return valid;
}

std::string plain_encode(const std::u32string& text) {
    std::string out;
    for (const char32_t c : text) {
        if (c < 0x80)
            out += static_cast<char>(c);
        else if (c < 0x800)
            out += {static_cast<char>(0xc0 + c / 64), static_cast<char>(0x80 + c % 64)};
        else if (c < 0x10000)
            out += {static_cast<char>(0xe0 + c / 4096), static_cast<char>(0x80 + c / 64 % 64),
                    static_cast<char>(0x80 + c % 64)};
        else
            out += {static_cast<char>(0xf0 + c / 262144), static_cast<char>(0x80 + c / 4096 % 64),
                    static_cast<char>(0x80 + c / 64 % 64), static_cast<char>(0x80 + c % 64)};
    }
    return out;
}

std::vector<uint16> plain_utf16(const std::u32string& text) {
    std::vector<uint16> out;
    for (const char32_t c : text) {
        if (c >= 0x10000) {
            out.push_back(static_cast<uint16>(0xd800 + (c - 0x10000) / 1024));
            out.push_back(static_cast<uint16>(0xdc00 + (c - 0x10000) % 1024));
        } else {
            out.push_back(static_cast<uint16>(c));
        }
    }
    return out;
}

bool plain_from_utf16(const std::vector<uint16>& units, std::u32string& out) {
    bool valid = true;
    for (std::size_t i = 0; i < units.size(); ++i) {
        const bool high = units[i] / 1024 == 0xd800 / 1024;
        if (high && i + 1 < units.size() && units[i + 1] / 1024 == 0xdc00 / 1024) {
            out += static_cast<char32_t>(0x10000 + units[i] % 1024 * 1024 + units[i + 1] % 1024);
            ++i;
        } else if (is_character(units[i])) {
            out += static_cast<char32_t>(units[i]);
        } else {
            out += replacement;
            valid = false;
        }
    }
    return valid;
}

void require(bool agreed) {
    if (!agreed)
        std::abort();
}

template <class UNIT>
std::vector<UNIT> units_of(const void* bytes, std::size_t size) {
    std::vector<UNIT> units(size / sizeof(UNIT));
    if (!units.empty())
        std::memcpy(units.data(), bytes, units.size() * sizeof(UNIT));
    return units;
}

bool holds(const qorString& text, const std::string& expected) {
    return std::string(text.Text(), text.Length()) == expected;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // The bytes as UTF-8.
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    const qorString text(bytes.data(), static_cast<int32>(size));
    std::u32string characters;
    const bool valid = plain_decode(bytes, characters);

    qorDataBlock block;
    require(text.GetAsUCS4(block) == valid);
    std::vector<uint32> expected(characters.begin(), characters.end());
    expected.push_back(0);
    require(units_of<uint32>(block.ptr(), block.Size()) == expected);

    require(text.GetAsUCS2(block) == valid);
    std::vector<uint16> expected_pairs = plain_utf16(characters);
    expected_pairs.push_back(0);
    require(units_of<uint16>(block.ptr(), block.Size()) == expected_pairs);

    // The same bytes as UTF-16.
    const std::vector<uint16> pairs = units_of<uint16>(data, size);
    characters.clear();
    const bool valid_pairs = plain_from_utf16(pairs, characters);
    qorString made;
    require(made.SetUCS2(pairs.data(), static_cast<int32>(pairs.size())) == valid_pairs);
    require(holds(made, plain_encode(characters)));

    // And as UTF-32.
    characters.clear();
    bool valid_numbers = true;
    const std::vector<uint32> numbers = units_of<uint32>(data, size);
    for (const uint32 value : numbers) {
        characters += is_character(value) ? static_cast<char32_t>(value) : replacement;
        valid_numbers = valid_numbers && is_character(value);
    }
    require(made.SetUCS4(numbers.data(), static_cast<int32>(numbers.size())) == valid_numbers);
    require(holds(made, plain_encode(characters)));
    return 0;
}
