// An ordered array of strings, used for argument vectors and for the results of listings.
#pragma once

#include "qor/system/String.h"

#include <span>

// A contiguous range of strings that cannot be changed in place. Any change of the array invalidates iterators. Not
// thread-safe. Added texts are copied and may lie in the array itself; a length of -1 means up to the terminator. If
// memory runs out, the process ends with a report.
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

    // Returns the text of an element, valid until the array changes. An index at or beyond the count is reported and
    // yields an empty text.
    const char* operator[](uint32 index) const noexcept { return at(index); }
    const char* GetAt(uint32 index) const noexcept { return at(index); }

    // The elements with their lengths, for range-for, for the algorithms of the C++ library and for spans of const
    // qorString.
    const qorString* begin() const noexcept { return m_data.elements; }
    const qorString* end() const noexcept { return m_data.elements + m_data.count; }

    // Frees the elements and the storage.
    void Empty() noexcept { qor::glue::qorStringArray_Empty(this); }

    // The whole argument vector, including the program's name.
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
    // Adds several texts: elements of another array, which must not be this one, or C strings such as std::span(argv,
    // argc).
    void Append(std::span<const qorString> texts) noexcept { append_each(texts); }
    void Append(std::span<const std::string_view> texts) noexcept { append_each(texts); }
    void Append(std::span<const char* const> texts) noexcept {
        for (const char* const text : texts)
            Append(text);
    }
    // An index beyond the end means the end.
    void InsertAt(uint32 index, const char* text, int32 length = -1) noexcept {
        qor::glue::qorStringArray_InsertAt(this, index, text, qor::glue::text_length(text, length));
    }
    // The range is cut at the end of the array.
    void RemoveAt(uint32 index, uint32 count) noexcept { qor::glue::qorStringArray_RemoveAt(this, index, count); }

    // Becomes a copy; copying an array onto itself changes nothing.
    void Copy(const qorStringArray& other) noexcept { qor::glue::qorStringArray_Copy(this, other); }
    // Becomes a copy of a part. If `other` is this array, it is reduced to that part.
    void CopyPortion(const qorStringArray& other, uint32 index, uint32 count) noexcept {
        qor::glue::qorStringArray_CopyPortion(this, other, index, count);
    }

    // Stable sorts: equal elements keep their order in both directions.
    void Sort(bool ascending) noexcept { qor::glue::qorStringArray_Sort(this, ascending); }
    void SortNoCase(bool ascending) noexcept { qor::glue::qorStringArray_SortNoCase(this, ascending); }
    // `compare` gets the texts of two elements and `context`. If it is inconsistent, the resulting order is
    // unspecified.
    void SortUsing(qorStringCompare compare, void* context) noexcept {
        qor::glue::qorStringArray_SortUsing(this, compare, context);
    }

    // The array as a set of texts, case-sensitive. AddUnique returns false if the text is present already. RemoveUnique
    // removes the first equal text and returns false if no text is equal. FindString returns the index of the first
    // equal text at or behind `start`, or -1.
    bool AddUnique(const char* text) noexcept { return qor::glue::qorStringArray_AddUnique(this, text); }
    bool RemoveUnique(const char* text) noexcept { return qor::glue::qorStringArray_RemoveUnique(this, text); }
    int32 FindString(const char* text, uint32 start = 0) const noexcept {
        return qor::glue::qorStringArray_FindString(this, text, start);
    }
    bool IsPresent(const char* text) const noexcept { return FindString(text) >= 0; }

    // Stream form: the count, then for each element its length in bytes and its bytes; the numbers are unsigned 32-bit.
    // A failed Read leaves the elements that were complete (last error). Memory is only allocated for bytes that
    // arrive, whatever lengths the stream claims.
    bool Write(IQORDataSink* sink) const noexcept { return qor::glue::qorStringArray_Write(this, sink); }
    [[nodiscard]] bool Read(IQORDataSource* source) noexcept { return qor::glue::qorStringArray_Read(this, source); }

    // Part of the binary contract: the library allocates and frees, inline members read. All `alloc` elements are
    // constructed strings; those behind the count are empty.
    struct data {
        // The storage; null while no memory is allocated.
        qorString* elements = nullptr;
        // The number of elements in use.
        uint32 count = 0;
        // The number of elements that the storage holds.
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
