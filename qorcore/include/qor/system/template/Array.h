// The template array: a qorVector whose elements are constructed and destroyed.
#pragma once

#include "qor/system/Vector.h"
#include "qor/system/template/SmartPointer.h"

#include <new>
#include <type_traits>
#include <utility>

// The vector moves elements as bytes when it grows or closes a gap. So TYPE must be relocatable by memcpy; for
// instance, it must not contain pointers into itself. The framework's own types are relocatable. Not thread-safe.
template <class TYPE>
class zetArray {
    static_assert(alignof(TYPE) <= alignof(std::max_align_t));

public:
    zetArray() noexcept : m_vec(sizeof(TYPE)) {}
    ~zetArray() { Empty(); }

    // The number of elements, and whether it is 0.
    uint32 GetCount() const noexcept { return m_vec.GetCount(); }
    bool IsEmpty() const noexcept { return m_vec.GetCount() == 0; }

    // Destroys the elements and frees the storage.
    void Empty() noexcept {
        destroy(0, GetCount());
        m_vec.Empty();
    }

    // Adds a copy at the end; `value` may be an element of this array. Throws std::bad_alloc.
    TYPE& Append(const TYPE& value) {
        TYPE copy(value);
        return *new (m_vec.Append(1)) TYPE(std::move(copy));
    }

    // Removes elements. A range that ends behind the last element is reported and cut.
    void RemoveAt(uint32 index, uint32 count) noexcept {
        static constexpr auto func = qor::glue::function_text<TYPE, sizeof signature>(signature);
        const uint32 held = GetCount();
        if (index > held || count > held - index) {
            qor::glue::assert_failed("index + count <= m_vec.GetCount()", func.text,
                                     "qorcore/include/qor/system/template/Array", 92);
            index = index < held ? index : held;
            count = count < held - index ? count : held - index;
        }
        destroy(index, count);
        m_vec.Collapse(index, count);
    }

    // Checked by the vector: an index at or beyond the count is reported, and the result must not be used.
    TYPE& operator[](uint32 index) noexcept { return *static_cast<TYPE*>(m_vec.ptr(index)); }
    const TYPE& operator[](uint32 index) const noexcept { return *static_cast<const TYPE*>(m_vec.ptr(index)); }

    // A contiguous range. Iterators become invalid when the array grows or elements are removed.
    TYPE* begin() noexcept { return reinterpret_cast<TYPE*>(m_vec.m_data.elements); }
    TYPE* end() noexcept { return begin() + GetCount(); }
    const TYPE* begin() const noexcept { return reinterpret_cast<const TYPE*>(m_vec.m_data.elements); }
    const TYPE* end() const noexcept { return begin() + GetCount(); }

private:
    static constexpr char signature[] = "void zetArray<TYPE>::RemoveAt(uint32, uint32)";

    void destroy(uint32 index, uint32 count) noexcept {
        if constexpr (!std::is_trivially_destructible_v<TYPE>)
            for (TYPE *element = begin() + index, *last = element + count; element != last; ++element)
                element->~TYPE();
    }

    qorVector m_vec;
};
