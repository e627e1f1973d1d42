// A growable run of elements of one size, given as bytes: the storage under the typed and template arrays.
#pragma once

#include "qor/glue/impl_common.h"

// Elements move by memcpy when the vector grows; nothing is constructed or destroyed. An element's address is
// stale after anything that grows the vector. Not thread-safe.
class qorVector {
public:
    // An empty vector for elements of `chunk_size` bytes.
    explicit qorVector(unsigned chunk_size) noexcept { qor::glue::qorVector_Init(this, chunk_size); }
    qorVector(const qorVector&) = delete;
    qorVector& operator=(const qorVector&) = delete;
    ~qorVector() { Empty(); }

    // No elements; the storage is freed.
    void Empty() noexcept { qor::glue::qorVector_Empty(this); }

    // Adds `n` elements, not cleared, and returns the first of them. Growth is by half of what there is, at least
    // what is asked for. Throws std::bad_alloc, as Insert and SetAlloc do; the vector is then as it was. For n of 0
    // the result is the address behind the last element, null in a vector that never held one.
    void* Append(unsigned n) { return checked(qor::glue::qorVector_Append(this, n), n); }

    // Opens `n` elements at `index` and returns the first of them. An index beyond the count appends.
    void* Insert(unsigned index, unsigned n) { return checked(qor::glue::qorVector_Insert(this, index, n), n); }

    // Takes out `n` elements at `index`; what lies beyond the count does not count.
    void Collapse(unsigned index, unsigned n) noexcept { qor::glue::qorVector_Collapse(this, index, n); }

    // Makes room for `n` elements in all; never takes room away.
    void SetAlloc(unsigned n) {
        if (!qor::glue::qorVector_SetAlloc(this, n)) [[unlikely]]
            throw std::bad_alloc();
    }

    // Leaves the vector empty without freeing: the storage belongs to whoever holds its pointer, who frees it
    // with qor_do_free.
    void Detach() noexcept {
        m_data.elements = nullptr;
        m_data.count = 0;
        m_data.alloc = 0;
    }

    // Takes over the elements of `src` and returns their count. Different element sizes are reported, and the
    // elements are taken all the same.
    uint32 StealVectorData(qorVector& src) noexcept {
        if (m_data.chunk_size != src.m_data.chunk_size)
            qor::glue::assert_failed("m_data.chunk_size == src.m_data.chunk_size",
                                     "void qorVector::StealVectorData(qorVector&)", qor::glue::common_file, 1774);
        Empty();
        m_data.elements = src.m_data.elements;
        m_data.count = src.m_data.count;
        m_data.alloc = src.m_data.alloc;
        src.Detach();
        return m_data.count;
    }

    // The address of an element. An index that is not below the count is reported, and the address is returned
    // all the same.
    void* ptr(uint32 index) noexcept {
        check(index);
        return qor::glue::address_behind(m_data.elements, std::size_t{index} * m_data.chunk_size);
    }
    const void* ptr(uint32 index) const noexcept {
        check(index);
        return qor::glue::address_behind(m_data.elements, std::size_t{index} * m_data.chunk_size);
    }

    // The number of elements.
    uint32 GetCount() const noexcept { return m_data.count; }

    // Part of the contract: the library allocates and frees, inline members read.
    struct {
        unsigned char* elements;
        uint32 count;
        uint32 chunk_size;
        uint32 alloc;
    } m_data;

private:
    static void* checked(void* element, unsigned n) { return n == 0 ? element : qor::glue::or_throw(element); }

    void check(uint32 index) const noexcept {
        if (index >= m_data.count) [[unlikely]]
            qor::glue::assert_failed("index < m_data.count", "void* qorVector::ptr(uint32)",
                                     "qorcore/include/qor/system/Vector", 84);
    }
};
