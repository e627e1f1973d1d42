// A growable array of elements of one size, treated as bytes: the storage of the typed arrays and the template array.
#pragma once

#include "qor/glue/impl_common.h"

// Elements are moved as bytes when the vector grows; nothing is constructed or destroyed. Growth invalidates the
// addresses of elements. Not thread-safe.
class qorVector {
public:
    // Creates an empty vector for elements of `chunk_size` bytes.
    explicit qorVector(unsigned chunk_size) noexcept { qor::glue::qorVector_Init(this, chunk_size); }
    qorVector(const qorVector&) = delete;
    qorVector& operator=(const qorVector&) = delete;
    ~qorVector() { Empty(); }

    // Removes all elements and frees the storage.
    void Empty() noexcept { qor::glue::qorVector_Empty(this); }

    // Adds `n` uninitialised elements and returns the address of the first. The storage grows by half, or to the needed
    // size if that is larger. Throws std::bad_alloc, like Insert and SetAlloc; the vector is then unchanged. If n is 0,
    // the result is the address behind the last element, or null if the vector has no storage.
    void* Append(unsigned n) { return checked(qor::glue::qorVector_Append(this, n), n); }

    // Inserts `n` uninitialised elements at `index` and returns the address of the first. An index beyond the count
    // appends.
    void* Insert(unsigned index, unsigned n) { return checked(qor::glue::qorVector_Insert(this, index, n), n); }

    // Removes `n` elements at `index`. The range is cut at the last element.
    void Collapse(unsigned index, unsigned n) noexcept { qor::glue::qorVector_Collapse(this, index, n); }

    // Reserves room for `n` elements in total. Never shrinks the storage.
    void SetAlloc(unsigned n) {
        if (!qor::glue::qorVector_SetAlloc(this, n)) [[unlikely]]
            throw std::bad_alloc();
    }

    // Leaves the vector empty without freeing the storage, which now belongs to the holder of its pointer, who frees it
    // with qor_do_free.
    void Detach() noexcept {
        m_data.elements = nullptr;
        m_data.count = 0;
        m_data.alloc = 0;
    }

    // Frees the elements, takes over those of `src` and returns their number. Different element sizes are reported, but
    // the elements are still taken.
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

    // The address of an element. An index at or beyond the count is reported, and the address is still returned.
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

    // Part of the binary contract: the library allocates and frees, inline members read.
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
