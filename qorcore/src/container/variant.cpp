// Variants: what they own, their order and their hashes.
#include "container/variant.h"

#include "container/hashing.h"
#include "error/error.h"
#include "memory/allocator.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <string>
#include <vector>

namespace {

constexpr char source[] = "qorcore/src/container/variant";

using kind = qorVariantKind;

std::string_view bytes_of(const qorVariant& value) noexcept { return {value.m_data.bytes, value.m_data.length}; }

// Kinds that are sorted together have the same rank.
uint32 rank_of(const qorVariant& value) noexcept {
    return static_cast<uint32>(value.IsNumber() ? kind::integer : value.Kind());
}

std::strong_ordering reversed(std::strong_ordering order) noexcept {
    return std::is_lt(order) ? std::strong_ordering::greater : std::is_gt(order) ? std::strong_ordering::less : order;
}

// Compares a number with a whole part of any size to an integer, exactly.
std::strong_ordering compare_real(double real, bool is_negative, uint64 magnitude) noexcept {
    // The ends of the order, and signs that differ.
    if (std::isnan(real) || real >= 0x1p64 || real <= -0x1p64)
        return std::signbit(real) ? std::strong_ordering::less : std::strong_ordering::greater;
    const bool real_is_negative = real < 0;
    if (real_is_negative != is_negative)
        return real_is_negative ? std::strong_ordering::less : std::strong_ordering::greater;
    const double size = std::fabs(real);
    const double whole = std::trunc(size);
    std::strong_ordering order = static_cast<uint64>(whole) <=> magnitude;
    if (std::is_eq(order) && size != whole)
        order = std::strong_ordering::greater;
    if (std::is_neq(order) && is_negative)
        return reversed(order);
    // Of two equal numbers, the integer comes first.
    return std::is_neq(order) ? order : std::strong_ordering::greater;
}

bool is_negative(const qorVariant& number) noexcept {
    return number.Kind() == kind::integer && number.m_data.integer < 0;
}

// The size without the sign. For the integers it is also right for the least one.
uint64 magnitude(const qorVariant& number) noexcept {
    return is_negative(number) ? 0 - number.m_data.natural : number.m_data.natural;
}

std::strong_ordering compare_numbers(const qorVariant& left, const qorVariant& right) noexcept {
    if (left.Kind() == kind::real && right.Kind() == kind::real)
        return std::strong_order(left.m_data.real, right.m_data.real);
    if (left.Kind() == kind::real)
        return compare_real(left.m_data.real, is_negative(right), magnitude(right));
    if (right.Kind() == kind::real)
        return reversed(compare_real(right.m_data.real, is_negative(left), magnitude(left)));
    if (is_negative(left) != is_negative(right))
        return is_negative(left) ? std::strong_ordering::less : std::strong_ordering::greater;
    return is_negative(left) ? magnitude(right) <=> magnitude(left) : magnitude(left) <=> magnitude(right);
}

// The attributes of a set in the order of their names.
std::vector<const qorAttribute*> by_name(IQORAttributeSet* set) {
    std::vector<const qorAttribute*> all;
    all.reserve(set->GetCount());
    for (const qorAttribute& each : set->Attributes())
        all.push_back(&each);
    std::sort(all.begin(), all.end(), [](auto left, auto right) { return left->name < right->name; });
    return all;
}

} // namespace

namespace qor::container {

bool check_level(uint32 level) noexcept {
    if (level > qorMaxNesting)
        error::set(qorError_nested_too_deep, {std::to_string(qorMaxNesting).c_str()});
    return level <= qorMaxNesting;
}

qorVariant variant_of_list(uint32 level) noexcept {
    qorVariant made;
    made.m_data.list = new_list(level);
    made.m_data.kind = kind::list;
    return made;
}

qorVariant variant_of_set(uint32 level) noexcept {
    qorVariant made;
    made.m_data.set = new_set(level);
    made.m_data.kind = kind::set;
    return made;
}

bool copy(qorVariant& to, const qorVariant& from, uint32 level) noexcept {
    if (from.Kind() != kind::list && from.Kind() != kind::set) {
        to = from;
        return true;
    }
    if (!check_level(level))
        return false;
    qorVariant made = from.Kind() == kind::list ? variant_of_list(level) : variant_of_set(level);
    if (from.Kind() == kind::list ? !copy_elements(made.AsList(), from.AsList())
                                  : !copy_elements(made.AsSet(), from.AsSet()))
        return false;
    to = std::move(made);
    return true;
}

bool copy_elements(IQORVariantList* to, IQORVariantList* from) noexcept {
    to->Reserve(from->GetCount());
    for (const qorVariant& each : from->Values())
        if (!to->Append(each))
            return false;
    return true;
}

bool copy_elements(IQORAttributeSet* to, IQORAttributeSet* from) noexcept {
    to->Reserve(from->GetCount());
    for (const qorAttribute& each : from->Attributes())
        if (!to->Set(each.name, each.value))
            return false;
    return true;
}

int compare_lists(IQORVariantList* left, IQORVariantList* right) noexcept {
    const auto first = left->Values(), second = right->Values();
    return as_int(std::lexicographical_compare_three_way(first.begin(), first.end(), second.begin(), second.end()));
}

int compare_sets(IQORAttributeSet* left, IQORAttributeSet* right) noexcept {
    const auto first = by_name(left), second = by_name(right);
    return as_int(std::lexicographical_compare_three_way(
        first.begin(), first.end(), second.begin(), second.end(), [](auto one, auto other) -> std::strong_ordering {
            const std::strong_ordering names = one->name <=> other->name;
            return std::is_neq(names) ? names : one->value <=> other->value;
        }));
}

uint64 hash_list(IQORVariantList* list) noexcept {
    uint64 state = hash_number(list->GetCount(), ~hash_key());
    for (const qorVariant& each : list->Values())
        state = mix(state ^ each.Hash(), hash_multiplier);
    return state;
}

uint64 hash_attribute(qorTextView name, const qorVariant& value) noexcept {
    return mix(hash_bytes(name, hash_key()) ^ value.Hash(), hash_multiplier);
}

uint64 hash_set(IQORAttributeSet* set) noexcept {
    uint64 sum = set->GetCount(); // does not depend on the order
    for (const qorAttribute& each : set->Attributes())
        sum += hash_attribute(each.name, each.value);
    return hash_number(sum, hash_key());
}

} // namespace qor::container

void qor::glue::qorVariant_SetBytes(qorVariant* self, qorVariantKind of, const void* bytes, uint32 length) noexcept {
    if (length == 0xffffffff)
        memory::exhausted(length, source, __LINE__);
    char* const copy = static_cast<char*>(memory::require(length + 1ull, source, __LINE__));
    if (length != 0)
        std::memcpy(copy, bytes, length);
    copy[length] = '\0';
    self->m_data.bytes = copy;
    self->m_data.length = length;
    self->m_data.kind = of;
}

void qor::glue::qorVariant_SetList(qorVariant* self, IQORVariantList* from) noexcept {
    *self = container::variant_of_list(1);
    if (from != nullptr)
        container::copy_elements(self->AsList(), from);
}

void qor::glue::qorVariant_SetSet(qorVariant* self, IQORAttributeSet* from) noexcept {
    *self = container::variant_of_set(1);
    if (from != nullptr)
        container::copy_elements(self->AsSet(), from);
}

void qor::glue::qorVariant_Copy(qorVariant* self, const qorVariant& other) noexcept {
    if (other.Kind() == kind::text || other.Kind() == kind::bytes)
        qorVariant_SetBytes(self, other.Kind(), other.m_data.bytes, other.m_data.length);
    else
        container::copy(*self, other, 1); // from level 1 or deeper, so it fits
}

void qor::glue::qorVariant_Empty(qorVariant* self) noexcept {
    const qorVariant::data old = std::exchange(self->m_data, {});
    if (old.kind == kind::text || old.kind == kind::bytes)
        qor_do_free(old.bytes, source, __LINE__);
    else if (old.kind == kind::list)
        old.list->Release();
    else if (old.kind == kind::set)
        old.set->Release();
}

int qor::glue::qorVariant_Compare(const qorVariant* self, const qorVariant& other) noexcept {
    const uint32 rank = rank_of(*self);
    if (rank != rank_of(other))
        return rank < rank_of(other) ? -1 : 1;
    switch (self->Kind()) {
    case kind::null:
        return 0;
    case kind::logical:
    case kind::time:
        return container::as_int(self->m_data.natural <=> other.m_data.natural);
    case kind::text:
    case kind::bytes:
        return container::as_int(bytes_of(*self) <=> bytes_of(other));
    case kind::list:
        return container::compare_lists(self->AsList(), other.AsList());
    case kind::set:
        return container::compare_sets(self->AsSet(), other.AsSet());
    default:
        return container::as_int(compare_numbers(*self, other));
    }
}

uint64 qor::glue::qorVariant_Hash(const qorVariant* self) noexcept {
    // Each kind has a key of its own. Integers that are equal have the same 64 bits, with or without a sign.
    const auto of = self->Kind() == kind::natural && self->AsInt64() ? kind::integer : self->Kind();
    const uint64 key =
        container::mix(container::hash_key(), container::hash_multiplier * (static_cast<uint32>(of) + 1));
    switch (self->Kind()) {
    case kind::text:
    case kind::bytes:
        return container::hash_bytes(bytes_of(*self), key);
    case kind::list:
        return container::hash_list(self->AsList());
    case kind::set:
        return container::hash_set(self->AsSet());
    default:
        return container::hash_number(self->m_data.natural, key);
    }
}
