// The typed arrays: growable arrays of plain numbers, one class for each element type.
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

// The difference of two elements reduced to 32 bits, by which typed arrays sort. It does not match the order of the
// numbers if the difference does not fit: the difference of 32-bit and 64-bit integers keeps its low 32 bits, and a
// floating-point difference is truncated towards zero, so that values less than 1 apart count as equal. A
// floating-point difference that is too large or not a number becomes INT_MIN.
template <class ELEMENT>
int32 squeezed_difference(ELEMENT left, ELEMENT right) noexcept {
    if constexpr (std::is_floating_point_v<ELEMENT>) {
        constexpr ELEMENT limit = 2147483648.0;
        const ELEMENT difference = left - right;
        return difference > -limit && difference < limit ? static_cast<int32>(difference) : INT_MIN;
    } else {
        // Unsigned, because the overflow is intended.
        return static_cast<int32>(static_cast<uint32>(left) - static_cast<uint32>(right));
    }
}

// The common implementation of the typed arrays. SELF is the class, whose name appears in assertions. An array is a
// contiguous range, and so converts to std::span. Only Copy and Append copy it. Not thread-safe. Addresses of elements
// become invalid when the array grows or elements are removed. Operations that grow the array throw std::bad_alloc if
// there is no memory; the array is then unchanged, but empty after Copy.
template <class SELF, class ELEMENT>
class numeric_array {
    static_assert(std::is_arithmetic_v<ELEMENT>);

public:
    numeric_array() noexcept : m_vec(sizeof(ELEMENT)) {}

    // The number of elements, and whether it is 0.
    uint32 GetCount() const noexcept { return m_vec.GetCount(); }
    bool IsEmpty() const noexcept { return GetCount() == 0; }

    // Removes all elements and frees the storage.
    void Empty() noexcept { m_vec.Empty(); }

    // Adds one element at the end and returns its address.
    ELEMENT* Append(ELEMENT value) { return store(m_vec.Append(1), value); }

    // Adds copies of all elements of another array or of this one.
    void Append(const SELF& other) {
        const uint32 count = other.GetCount();
        if (count == 0)
            return;
        void* const room = m_vec.Append(count);
        copy_run(room, other.GetDataPtr(), count); // the pointer is read only now: Append may have moved it
    }

    // Adds copies of `n` elements, which must not lie in this array.
    void Append(const ELEMENT* src, uint32 n) {
        if (n != 0)
            copy_run(m_vec.Append(n), src, n);
    }

    // Adds copies of the elements of a span, which must not lie in this array.
    void Append(std::span<const ELEMENT> elements) { Append(elements.data(), counted(elements)); }

    // Becomes a copy of another array. An array copied onto itself becomes empty, because it is emptied first.
    void Copy(const SELF& other) {
        Empty();
        Append(other);
    }

    // Inserts an element before `index` and returns its address. An index beyond the count appends.
    ELEMENT* InsertAt(uint32 index, ELEMENT value) { return store(m_vec.Insert(index, 1), value); }

    // The same for `n` elements, which must not lie in this array.
    void InsertAt(uint32 index, const ELEMENT* src, uint32 n) {
        if (n != 0)
            copy_run(m_vec.Insert(index, n), src, n);
    }

    // The same for a span.
    void InsertAt(uint32 index, std::span<const ELEMENT> elements) {
        InsertAt(index, elements.data(), counted(elements));
    }

    // Removes elements. A range that ends behind the last element is reported and cut; `index` + `count` is computed in
    // 32 bits.
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

    // The elements, contiguous; null if the array has no storage.
    ELEMENT* GetDataPtr() noexcept { return reinterpret_cast<ELEMENT*>(m_vec.m_data.elements); }
    const ELEMENT* GetDataPtr() const noexcept { return reinterpret_cast<const ELEMENT*>(m_vec.m_data.elements); }

    // The elements as a range. Iterators become invalid like addresses.
    ELEMENT* begin() noexcept { return GetDataPtr(); }
    ELEMENT* end() noexcept { return begin() + GetCount(); }
    const ELEMENT* begin() const noexcept { return GetDataPtr(); }
    const ELEMENT* end() const noexcept { return begin() + GetCount(); }

    // The address of an element; the index is not checked.
    ELEMENT* GetElementPtr(uint32 index) noexcept { return address_behind(GetDataPtr(), size(index)); }
    const ELEMENT* GetElementPtr(uint32 index) const noexcept { return address_behind(GetDataPtr(), size(index)); }

    // Sorts with the C library's qsort and the helpers below. Elements whose difference does not fit into 32 bits, and
    // floating-point elements less than 1 apart, end up in an unspecified order.
    void Sort(bool ascending) noexcept {
        if (GetCount() >= 2)
            std::qsort(GetDataPtr(), GetCount(), sizeof(ELEMENT),
                       ascending ? sorthelper_ascending : sorthelper_descending);
    }

    // Removes elements at the end, or adds uninitialised ones.
    void SetCount(uint32 n) {
        const uint32 count = GetCount();
        if (count > n)
            m_vec.Collapse(n, count - n);
        else if (count < n)
            m_vec.Append(n - count);
    }

    // Reserves room for `n` elements in total. Never shrinks the storage.
    void SetAlloc(uint32 n) { m_vec.SetAlloc(n); }

    // Returns the index of the first element that equals `value` by ==, or -1. So a NaN is never found, and 0.0 finds
    // -0.0.
    int32 Find(ELEMENT value) const noexcept {
        const ELEMENT* const found = std::find(begin(), end(), value);
        return found != end() ? static_cast<int32>(found - begin()) : -1;
    }
    bool IsPresent(ELEMENT value) const noexcept { return Find(value) >= 0; }

    // The array as a set, by Find. AddUnique returns false if the value is present already. RemoveUnique removes the
    // first equal element and returns false if no element is equal.
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

    // Compares the bytes, unlike Find: 0.0 and -0.0 differ, and a NaN is identical to the same NaN.
    bool IsIdentical(const SELF& other) const noexcept {
        return GetCount() == other.GetCount() &&
               (IsEmpty() || std::memcmp(GetDataPtr(), other.GetDataPtr(), size(GetCount())) == 0);
    }

    // The orders of Sort, in the form that qsort needs: the reduced difference of the first and second element, and the
    // reverse.
    static int32 sorthelper_ascending(const void* first, const void* second) noexcept {
        return squeezed_difference(*static_cast<const ELEMENT*>(first), *static_cast<const ELEMENT*>(second));
    }
    static int32 sorthelper_descending(const void* first, const void* second) noexcept {
        return sorthelper_ascending(second, first);
    }

private:
    static std::size_t size(uint32 count) noexcept { return std::size_t{count} * sizeof(ELEMENT); }

    // A span that is too long to count throws; it is not truncated.
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
