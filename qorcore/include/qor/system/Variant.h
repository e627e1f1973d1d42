// A value of any kind: what lists of variants and attribute sets hold. docs/containers.md has examples.
#pragma once

#include "qor/system/StringArray.h"
#include "qor/system/TextView.h"

#include <cmath>
#include <optional>
#include <span>

// The kinds of values in a variant. The order of the kinds is also the order in which values of different kinds are
// sorted; all numbers together are one kind there.
enum class qorVariantKind : uint32 {
    null = 0,    // nothing
    logical = 1, // true or false
    integer = 2, // 64 bits, signed
    natural = 3, // 64 bits, unsigned
    real = 4,    // double
    time = 5,    // a clock (qor/system/Time.h)
    text = 6,    // UTF-8 by convention; the bytes are not checked
    bytes = 7,   // raw
    list = 8,    // a list of variants
    set = 9,     // an attribute set
};

// How many lists and sets can stand in each other.
inline constexpr uint32 qorMaxNesting = 100;

// A value. Copying copies everything that it holds, so no two variants share a list or a set, and none contains itself.
// Not thread-safe. If memory runs out, the process ends with a report.
//
// Order and equality: `==` and `<=>` compare contents and are a total order. Integers compare by their values, whether
// signed or not, and 5 equals 5u. A number with a fraction part or an exponent is compared exactly, too, but never
// equals an integer: 5 is just below 5.0. Reals stand in the order -NaN, -infinity ... -0.0, 0.0 ... infinity, NaN.
// Texts and bytes compare by unsigned bytes; lists element by element; sets as if they were sorted by name, so their
// order does not matter.
class qorVariant {
public:
    // Null.
    qorVariant() noexcept = default;
    qorVariant(std::nullptr_t) noexcept {}
    qorVariant(bool value) noexcept : m_data{qorVariantKind::logical, 0, {.natural = value}} {}
    template <std::signed_integral NUMBER>
    qorVariant(NUMBER value) noexcept : m_data{qorVariantKind::integer, 0, {.integer = value}} {}
    template <std::unsigned_integral NUMBER>
    requires(!std::same_as<NUMBER, bool>) qorVariant(NUMBER value)
    noexcept : m_data{qorVariantKind::natural, 0, {.natural = value}} {}
    template <std::floating_point NUMBER>
    qorVariant(NUMBER value) noexcept : m_data{qorVariantKind::real, 0, {.real = static_cast<double>(value)}} {}
    // Text of every kind, up to 4 GiB - 2 bytes; a null pointer is an empty text.
    qorVariant(const char* text) noexcept : qorVariant(qorTextView(text)) {}
    qorVariant(const qorString& text) noexcept : qorVariant(qorTextView(text)) {}
    template <qor::glue::sized_text VIEW>
    qorVariant(const VIEW& text) noexcept {
        const std::string_view view(text);
        set(qorVariantKind::text, view.data(), view.size());
    }
    // A pointer is no value. (It would convert to bool.)
    template <class TYPE>
    qorVariant(const TYPE*) = delete;
    qorVariant(const char8_t*) = delete;

    // A time, and raw bytes.
    static qorVariant Time(uint64 clock) noexcept {
        qorVariant made;
        made.m_data = {qorVariantKind::time, 0, {.natural = clock}};
        return made;
    }
    static qorVariant Bytes(std::span<const std::byte> bytes) noexcept {
        qorVariant made;
        made.set(qorVariantKind::bytes, bytes.data(), bytes.size());
        return made;
    }
    // A list or a set: a copy of the given one, or a new one that is empty.
    static qorVariant List(IQORVariantList* from = nullptr) noexcept {
        qorVariant made;
        qor::glue::qorVariant_SetList(&made, from);
        return made;
    }
    static qorVariant Set(IQORAttributeSet* from = nullptr) noexcept {
        qorVariant made;
        qor::glue::qorVariant_SetSet(&made, from);
        return made;
    }

    qorVariant(const qorVariant& other) noexcept {
        if (!other.owns())
            m_data = other.m_data;
        else
            qor::glue::qorVariant_Copy(this, other);
    }
    qorVariant(qorVariant&& other) noexcept : m_data(std::exchange(other.m_data, {})) {}
    qorVariant& operator=(qorVariant other) noexcept {
        std::swap(m_data, other.m_data);
        return *this;
    }
    ~qorVariant() {
        if (owns())
            qor::glue::qorVariant_Empty(this);
    }

    // Becomes null.
    void Empty() noexcept { *this = qorVariant(); }

    // What it holds, and whether that is nothing.
    qorVariantKind Kind() const noexcept { return m_data.kind; }
    bool IsNull() const noexcept { return m_data.kind == qorVariantKind::null; }
    // Whether it holds one of the three kinds of numbers.
    bool IsNumber() const noexcept {
        return m_data.kind >= qorVariantKind::integer && m_data.kind <= qorVariantKind::real;
    }

    // The value, if it is of this kind. Numbers convert to another kind of number only if that holds exactly the same
    // value.
    std::optional<bool> AsBool() const noexcept {
        return m_data.kind == qorVariantKind::logical ? std::optional(m_data.natural != 0) : std::nullopt;
    }
    std::optional<int64> AsInt64() const noexcept {
        switch (m_data.kind) {
        case qorVariantKind::integer:
            return m_data.integer;
        case qorVariantKind::natural:
            return m_data.natural <= max_int64 ? std::optional(static_cast<int64>(m_data.natural)) : std::nullopt;
        case qorVariantKind::real:
            return is_whole(-0x1p63) ? std::optional(static_cast<int64>(m_data.real)) : std::nullopt;
        default:
            return std::nullopt;
        }
    }
    std::optional<uint64> AsUint64() const noexcept {
        switch (m_data.kind) {
        case qorVariantKind::integer:
            return m_data.integer >= 0 ? std::optional(static_cast<uint64>(m_data.integer)) : std::nullopt;
        case qorVariantKind::natural:
            return m_data.natural;
        case qorVariantKind::real:
            return is_whole(0) ? std::optional(static_cast<uint64>(m_data.real)) : std::nullopt;
        default:
            return std::nullopt;
        }
    }
    std::optional<double> AsDouble() const noexcept {
        if (m_data.kind == qorVariantKind::real)
            return m_data.real;
        if (m_data.kind == qorVariantKind::integer) {
            const qorVariant number(static_cast<double>(m_data.integer));
            return number.AsInt64() == m_data.integer ? std::optional(number.m_data.real) : std::nullopt;
        }
        if (m_data.kind == qorVariantKind::natural) {
            const qorVariant number(static_cast<double>(m_data.natural));
            return number.AsUint64() == m_data.natural ? std::optional(number.m_data.real) : std::nullopt;
        }
        return std::nullopt;
    }
    std::optional<uint64> AsTime() const noexcept {
        return m_data.kind == qorVariantKind::time ? std::optional(m_data.natural) : std::nullopt;
    }
    // In place: valid until the variant changes. A text is terminated.
    std::optional<std::string_view> AsText() const noexcept {
        if (m_data.kind != qorVariantKind::text)
            return std::nullopt;
        return std::string_view(m_data.bytes, m_data.length);
    }
    std::optional<std::span<const std::byte>> AsBytes() const noexcept {
        if (m_data.kind != qorVariantKind::bytes)
            return std::nullopt;
        return std::as_bytes(std::span(m_data.bytes, m_data.length));
    }
    // The list or the set itself, without a reference for the caller, or null. Changing it changes the variant.
    IQORVariantList* AsList() const noexcept { return m_data.kind == qorVariantKind::list ? m_data.list : nullptr; }
    IQORAttributeSet* AsSet() const noexcept { return m_data.kind == qorVariantKind::set ? m_data.set : nullptr; }

    // Negative, zero or positive; and a hash that is equal for equal values, within one process.
    int Compare(const qorVariant& other) const noexcept { return qor::glue::qorVariant_Compare(this, other); }
    uint64 Hash() const noexcept { return qor::glue::qorVariant_Hash(this); }
    friend bool operator==(const qorVariant& left, const qorVariant& right) noexcept {
        return left.Compare(right) == 0;
    }
    friend std::strong_ordering operator<=>(const qorVariant& left, const qorVariant& right) noexcept {
        return left.Compare(right) <=> 0;
    }

    // Stream form (docs/stream-form.md). Read replaces the value, and leaves it unchanged on failure. Memory is only
    // allocated for bytes that arrive.
    bool Write(IQORDataSink* sink) const noexcept { return qor::glue::qorVariant_Write(this, sink); }
    [[nodiscard]] bool Read(IQORDataSource* source) noexcept { return qor::glue::qorVariant_Read(this, source); }

    // JSON. `indent` blanks for each level, or everything in one line with 0. Bytes are written as base64, times as the
    // number of their clock. Fails for a real that is not finite and for a text that is not UTF-8; `out` is then empty.
    bool WriteJson(qorString& out, uint32 indent = 0) const noexcept {
        return qor::glue::qorVariant_WriteJson(this, indent, out);
    }
    // Integers are exact: one that is no 64-bit number is refused. Those below 2^63 become integers, larger ones
    // naturals, and numbers with a fraction part or an exponent reals. Refuses a name that stands twice in an object.
    // The value is unchanged on failure.
    [[nodiscard]] bool ReadJson(qorTextView text) noexcept {
        return qor::glue::qorVariant_ReadJson(this, text.text, text.length);
    }

    // Part of the binary contract: the library allocates and frees what `bytes`, `list` and `set` point to. `length`
    // counts the bytes of a text, without its terminator, and of raw bytes.
    struct data {
        qorVariantKind kind = qorVariantKind::null; // which member of the union is valid
        uint32 length = 0;                          // of text and bytes
        union {
            uint64 natural = 0; // logical (0 or 1), natural, time
            int64 integer;
            double real;
            char* bytes; // text, bytes
            IQORVariantList* list;
            IQORAttributeSet* set;
        };
    };
    data m_data; // the value

private:
    static constexpr uint64 max_int64 = 0x7fffffffffffffff;

    bool owns() const noexcept { return m_data.kind >= qorVariantKind::text; }
    // Whether the real is a whole number of the 64-bit kind that begins at `least`, whose end is 2^63 or 2^64.
    bool is_whole(double least) const noexcept {
        return m_data.real >= least && m_data.real < (least < 0 ? 0x1p63 : 0x1p64) &&
               std::trunc(m_data.real) == m_data.real && !(m_data.real == 0 && std::signbit(m_data.real));
    }
    void set(qorVariantKind kind, const void* bytes, std::size_t length) noexcept {
        qor::glue::qorVariant_SetBytes(this, kind, bytes, qor::glue::counted_length(length));
    }
};

static_assert(sizeof(qorVariant) == 16);

// The hash of the value, equal for equal values.
template <>
struct std::hash<qorVariant> {
    size_t operator()(const qorVariant& value) const noexcept { return static_cast<size_t>(value.Hash()); }
};
