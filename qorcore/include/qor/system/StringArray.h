// An ordered array of strings: the argument vector of every action, and the result of every listing.
#pragma once

#include "qor/system/String.h"

#include <span>

// A contiguous range of strings that cannot be changed in place; iterators are stale after any change of the array.
// Not thread-safe. Texts given to it are copied and may lie in the array itself; lengths of -1 mean up to the
// terminator. Operations that need memory which is not there end the process with a report.
class qorStringArray {
public:
    qorStringArray() noexcept { qor::glue::qorStringArray_Init(this); }
    qorStringArray(const qorStringArray& other) noexcept : qorStringArray() { Copy(other); }
    qorStringArray(qorStringArray&& other) noexcept : m_data(std::exchange(other.m_data, {})) {}
    ~qorStringArray() { Empty(); }
    qorStringArray& operator=(const qorStringArray& other) noexcept {
        Copy(other);
        return *this;
    }
    qorStringArray& operator=(qorStringArray&& other) noexcept {
        std::swap(m_data, other.m_data);
        return *this;
    }

    // The number of elements, and whether it is 0.
    uint32 GetCount() const noexcept { return m_data.count; }
    bool IsEmpty() const noexcept { return m_data.count == 0; }

    // An element's text, valid until the array changes. An index that is not below the count is reported, and the
    // element is returned all the same: where the array has room for it, it is a spare one, whose text is empty until
    // the array grows; where it has none, there is no element, and the text is empty, too.
    const char* operator[](uint32 index) const noexcept { return at(index); }
    const char* GetAt(uint32 index) const noexcept { return at(index); }

    // The elements with their lengths: for range-for, the algorithms of the C++ library, and spans of const qorString.
    const qorString* begin() const noexcept { return m_data.elements; }
    const qorString* end() const noexcept { return m_data.elements + m_data.count; }

    // Frees the elements and the storage.
    void Empty() noexcept { qor::glue::qorStringArray_Empty(this); }

    // The whole vector, the program's name included.
    void SetFromArgVec(int argc, char* const* argv) noexcept {
        qor::glue::qorStringArray_SetFromArgVec(this, argc, argv);
    }
    // A vector of texts that ends with a null pointer.
    void SetFromVector(const char* const* texts) noexcept { qor::glue::qorStringArray_SetFromVector(this, texts); }

    // Adds an element at the end, or copies of all elements of another array.
    void Append(const char* text, int32 length = -1) noexcept {
        qor::glue::qorStringArray_Append(this, text, qor::glue::text_length(text, length));
    }
    template <qor::glue::sized_text VIEW>
    void Append(const VIEW& text) noexcept {
        const std::string_view view(text);
        qor::glue::qorStringArray_Append(this, view.data(), qor::glue::counted_length(view.size()));
    }
    void Append(const qorStringArray& other) noexcept { qor::glue::qorStringArray_AppendArray(this, other); }
    // Several texts: of another array, which must not be this one, or C strings such as std::span(argv, argc).
    void Append(std::span<const qorString> texts) noexcept { append_each(texts); }
    void Append(std::span<const std::string_view> texts) noexcept { append_each(texts); }
    void Append(std::span<const char* const> texts) noexcept {
        for (const char* const text : texts)
            Append(text);
    }
    // An index behind the end means the end.
    void InsertAt(uint32 index, const char* text, int32 length = -1) noexcept {
        qor::glue::qorStringArray_InsertAt(this, index, text, qor::glue::text_length(text, length));
    }
    // What lies behind the end does not count.
    void RemoveAt(uint32 index, uint32 count) noexcept { qor::glue::qorStringArray_RemoveAt(this, index, count); }

    // A copy of itself changes nothing.
    void Copy(const qorStringArray& other) noexcept { qor::glue::qorStringArray_Copy(this, other); }
    // `other` may be this array: it is cut to the part.
    void CopyPortion(const qorStringArray& other, uint32 index, uint32 count) noexcept {
        qor::glue::qorStringArray_CopyPortion(this, other, index, count);
    }

    // Stable sorts; equal elements keep their order in both directions.
    void Sort(bool ascending) noexcept { qor::glue::qorStringArray_Sort(this, ascending); }
    void SortNoCase(bool ascending) noexcept { qor::glue::qorStringArray_SortNoCase(this, ascending); }
    // `compare` gets the elements' texts and `context`. An order that contradicts itself gives some order.
    void SortUsing(qorStringCompare compare, void* context) noexcept {
        qor::glue::qorStringArray_SortUsing(this, compare, context);
    }

    // As a set of texts, case-sensitive. AddUnique: false if present already. RemoveUnique: takes out the first
    // equal one, false if there is none. FindString: the first equal one at or behind `start`, or -1.
    bool AddUnique(const char* text) noexcept { return qor::glue::qorStringArray_AddUnique(this, text); }
    bool RemoveUnique(const char* text) noexcept { return qor::glue::qorStringArray_RemoveUnique(this, text); }
    int32 FindString(const char* text, uint32 start = 0) const noexcept {
        return qor::glue::qorStringArray_FindString(this, text, start);
    }
    bool IsPresent(const char* text) const noexcept { return FindString(text) >= 0; }

    // Stream form: the count, then for each element its length in bytes and its bytes; numbers are unsigned
    // 32-bit. A failed Read leaves the elements that were whole; memory is taken only for bytes
    // that came, whatever lengths the stream claims.
    bool Write(IQORDataSink* sink) const noexcept { return qor::glue::qorStringArray_Write(this, sink); }
    [[nodiscard]] bool Read(IQORDataSource* source) noexcept { return qor::glue::qorStringArray_Read(this, source); }

    // Part of the contract: the library allocates and frees, inline members read. All of `alloc` are strings; those
    // behind the count are empty.
    struct data {
        // The storage, null where there is none.
        qorString* elements = nullptr;
        // The elements in use.
        uint32 count = 0;
        // The elements that there is storage for.
        uint32 alloc = 0;
    };
    data m_data; // the elements

private:
    template <class TEXT_LIST>
    void append_each(TEXT_LIST texts) noexcept {
        for (const std::string_view text : texts)
            Append(text);
    }

    const char* at(uint32 index) const noexcept {
        if (index >= m_data.count) [[unlikely]]
            qor::glue::assert_failed("index < m_data.count", "const char* qorStringArray::operator[](uint32) const",
                                     qor::glue::common_file, 109);
        return index < m_data.alloc ? m_data.elements[index].Text() : "";
    }
};
