// The typed arrays: growable runs of plain numbers, one class for each type of element.
#pragma once

#include "qor/system/Vector.h"
#include "qor/system/template/SmartPointer.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <span>
#include <type_traits>

namespace qor::glue {

// The difference of two elements squeezed into 32 bits: what typed arrays sort by. It is not the order of the
// numbers where it does not fit: integers of 32 and 64 bits leave their low 32 bits, and a floating
// difference is cut towards zero, so that values less than 1 apart count as equal; where it is too large or
// no number it is INT_MIN.
template <class ELEMENT>
int32 squeezed_difference(ELEMENT left, ELEMENT right) noexcept {
    if constexpr (std::is_floating_point_v<ELEMENT>) {
        constexpr ELEMENT limit = 2147483648.0;
        const ELEMENT difference = left - right;
        return difference > -limit && difference < limit ? static_cast<int32>(difference) : INT_MIN;
    } else {
        // Unsigned, because overflow is meant.
        return static_cast<int32>(static_cast<uint32>(left) - static_cast<uint32>(right));
    }
}

// All that the typed arrays are; SELF is the class, whose name reports give. An array is a contiguous range, and so
// converts to std::span. Not copyable but by Copy and
// Append, not thread-safe. An element's address is stale after anything that grows the array or takes
// elements out. What grows it throws std::bad_alloc where there is no memory; the array is then as it was,
// after Copy empty.
template <class SELF, class ELEMENT>
class numeric_array {
    static_assert(std::is_arithmetic_v<ELEMENT>);

public:
    numeric_array() noexcept : m_vec(sizeof(ELEMENT)) {}

    // The number of elements, and whether it is 0.
    uint32 GetCount() const noexcept { return m_vec.GetCount(); }
    bool IsEmpty() const noexcept { return GetCount() == 0; }

    // No elements; the storage is freed.
    void Empty() noexcept { m_vec.Empty(); }

    // Adds one element at the end and returns its address.
    ELEMENT* Append(ELEMENT value) { return store(m_vec.Append(1), value); }

    // Adds a copy of all elements of another array, or of this one.
    void Append(const SELF& other) {
        const uint32 count = other.GetCount();
        if (count == 0)
            return;
        void* const room = m_vec.Append(count);
        copy_run(room, other.GetDataPtr(), count); // its address is asked for only now: it may be this array
    }

    // Adds `n` elements; `src` must not lie in this array.
    void Append(const ELEMENT* src, uint32 n) {
        if (n != 0)
            copy_run(m_vec.Append(n), src, n);
    }

    // Adds the elements of a span, which must not lie in this array.
    void Append(std::span<const ELEMENT> elements) { Append(elements.data(), counted(elements)); }

    // Becomes a copy of another array. A copy of itself leaves it empty, for it is emptied first.
    void Copy(const SELF& other) {
        Empty();
        Append(other);
    }

    // Opens room before `index` and returns the address of what was put there. An index beyond the count
    // appends.
    ELEMENT* InsertAt(uint32 index, ELEMENT value) { return store(m_vec.Insert(index, 1), value); }

    // The same for `n` elements; `src` must not lie in this array.
    void InsertAt(uint32 index, const ELEMENT* src, uint32 n) {
        if (n != 0)
            copy_run(m_vec.Insert(index, n), src, n);
    }

    // The same for a span.
    void InsertAt(uint32 index, std::span<const ELEMENT> elements) {
        InsertAt(index, elements.data(), counted(elements));
    }

    // Takes elements out. A range that ends behind the last element is reported, and cut; the sum is 32 bits
    // wide.
    void RemoveAt(uint32 index, uint32 count) noexcept {
        static constexpr joined_text<sizeof "void ::RemoveAt(uint32, uint32)" - 1 + type_name<SELF>().size()> func(
            {"void ", type_name<SELF>(), "::RemoveAt(uint32, uint32)"});
        if (count == 0)
            return;
        if (index + count > GetCount()) [[unlikely]]
            assert_failed("index + count <= m_vec.count", func.text, "qorcore/include/qor/system/mt/NumericArray_impl",
                          102);
        m_vec.Collapse(index, count);
    }

    // The elements, contiguous; null where there never was one.
    ELEMENT* GetDataPtr() noexcept { return reinterpret_cast<ELEMENT*>(m_vec.m_data.elements); }
    const ELEMENT* GetDataPtr() const noexcept { return reinterpret_cast<const ELEMENT*>(m_vec.m_data.elements); }

    // As a range; iterators are stale as addresses are.
    ELEMENT* begin() noexcept { return GetDataPtr(); }
    ELEMENT* end() noexcept { return begin() + GetCount(); }
    const ELEMENT* begin() const noexcept { return GetDataPtr(); }
    const ELEMENT* end() const noexcept { return begin() + GetCount(); }

    // An element's address; the index is not checked.
    ELEMENT* GetElementPtr(uint32 index) noexcept { return address_behind(GetDataPtr(), size(index)); }
    const ELEMENT* GetElementPtr(uint32 index) const noexcept { return address_behind(GetDataPtr(), size(index)); }

    // By the C library's qsort, with the helpers below. Elements whose difference does not fit in 32 bits,
    // and floating ones less than 1 apart, end up in an order that only qsort knows.
    void Sort(bool ascending) noexcept {
        if (GetCount() >= 2)
            std::qsort(GetDataPtr(), GetCount(), sizeof(ELEMENT),
                       ascending ? sorthelper_ascending : sorthelper_descending);
    }

    // Drops elements at the end, or adds some, whose values are whatever lay there.
    void SetCount(uint32 n) {
        const uint32 count = GetCount();
        if (count > n)
            m_vec.Collapse(n, count - n);
        else if (count < n)
            m_vec.Append(n - count);
    }

    // Makes room for `n` elements in all; never takes room away.
    void SetAlloc(uint32 n) { m_vec.SetAlloc(n); }

    // The index of the first element that equals `value` by ==, else -1: a NaN is never found, and 0.0 finds
    // -0.0.
    int32 Find(ELEMENT value) const noexcept {
        const ELEMENT* const found = std::find(begin(), end(), value);
        return found != end() ? static_cast<int32>(found - begin()) : -1;
    }
    bool IsPresent(ELEMENT value) const noexcept { return Find(value) >= 0; }

    // As a set, by Find. AddUnique: false if present already. RemoveUnique: takes out the first equal one,
    // false if there is none.
    bool AddUnique(ELEMENT value) {
        if (IsPresent(value))
            return false;
        Append(value);
        return true;
    }
    bool RemoveUnique(ELEMENT value) noexcept {
        const int32 index = Find(value);
        if (index < 0)
            return false;
        m_vec.Collapse(static_cast<uint32>(index), 1);
        return true;
    }

    // Byte for byte, unlike Find: 0.0 and -0.0 differ, and a NaN is identical to the same NaN.
    bool IsIdentical(const SELF& other) const noexcept {
        return GetCount() == other.GetCount() &&
               (IsEmpty() || std::memcmp(GetDataPtr(), other.GetDataPtr(), size(GetCount())) == 0);
    }

    // The orders of Sort, as qsort wants them: the squeezed difference of first and second, and the reverse.
    static int32 sorthelper_ascending(const void* first, const void* second) noexcept {
        return squeezed_difference(*static_cast<const ELEMENT*>(first), *static_cast<const ELEMENT*>(second));
    }
    static int32 sorthelper_descending(const void* first, const void* second) noexcept {
        return sorthelper_ascending(second, first);
    }

private:
    static std::size_t size(uint32 count) noexcept { return std::size_t{count} * sizeof(ELEMENT); }

    // A span that cannot be counted is refused as too long, not cut.
    static uint32 counted(std::span<const ELEMENT> elements) {
        if (elements.size() > 0xffffffff)
            throw std::bad_alloc();
        return static_cast<uint32>(elements.size());
    }

    static ELEMENT* store(void* room, ELEMENT value) noexcept {
        ELEMENT* const element = static_cast<ELEMENT*>(room);
        *element = value;
        return element;
    }

    static void copy_run(void* room, const ELEMENT* src, uint32 count) noexcept { std::memcpy(room, src, size(count)); }

    qorVector m_vec;
};

} // namespace qor::glue

class uint8_Array : public qor::glue::numeric_array<uint8_Array, uint8> {};
class int8_Array : public qor::glue::numeric_array<int8_Array, int8> {};
class uint16_Array : public qor::glue::numeric_array<uint16_Array, uint16> {};
class int16_Array : public qor::glue::numeric_array<int16_Array, int16> {};
class uint32_Array : public qor::glue::numeric_array<uint32_Array, uint32> {};
class int32_Array : public qor::glue::numeric_array<int32_Array, int32> {};
class uint64_Array : public qor::glue::numeric_array<uint64_Array, uint64> {};
class int64_Array : public qor::glue::numeric_array<int64_Array, int64> {};
class float_Array : public qor::glue::numeric_array<float_Array, float> {};
class double_Array : public qor::glue::numeric_array<double_Array, double> {};
