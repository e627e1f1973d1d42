// String arrays: storage, elements, order and set operations.
#include "memory/allocator.h"
#include "string/array_data.h"
#include "string/merge_sort.h"
#include "string/string_data.h"

#include <algorithm>
#include <cstring>
#include <type_traits>

using qor::string::assign;
using qor::string::view;

namespace {

constexpr char this_file[] = "qorcore/src/string/string_array";

// Positions are int32.
constexpr uint64 max_count = 0x7fffffff;

// Most arrays are argument vectors or the words of a line.
constexpr uint64 smallest_alloc = 8;

// Elements are moved as bytes: a string consists of its three fields, and nothing points to it.
using fields = qorString::data;
static_assert(std::is_standard_layout_v<qorString> && sizeof(qorString) == sizeof(fields));
static_assert(std::is_trivially_copyable_v<fields>);

fields* fields_of(qorStringArray& array) noexcept { return reinterpret_cast<fields*>(array.m_data.elements); }

void move(qorString* to, const qorString* from, std::size_t count) noexcept {
    std::memmove(static_cast<void*>(to), static_cast<const void*>(from), count * sizeof(qorString));
}

void reserve(qorStringArray& self, uint64 count) noexcept {
    qorStringArray::data& data = self.m_data;
    if (count <= data.alloc)
        return;
    if (count > max_count)
        qor::memory::exhausted(count * sizeof(qorString), this_file, __LINE__);
    const uint64 alloc = std::min(std::max({count, 2ull * data.alloc, smallest_alloc}), max_count);
    const uint64 size = alloc * sizeof(qorString);
    void* const block = qor::glue::qor_do_realloc(data.elements, size, this_file, __LINE__);
    if (block == nullptr)
        qor::memory::exhausted(size, this_file, __LINE__);
    data.elements = static_cast<qorString*>(block);
    for (uint64 i = data.alloc; i < alloc; ++i)
        qor::glue::qorString_Init(&data.elements[i], 0);
    data.alloc = static_cast<uint32>(alloc);
}

template <class COMPARE>
void sort(qorStringArray& self, bool ascending, const COMPARE& compare) noexcept {
    const uint32 count = self.m_data.count;
    if (count < 2)
        return;
    const auto text = [](const fields& element) noexcept {
        return std::string_view(element.text != nullptr ? element.text : "", element.length);
    };
    fields* const elements = fields_of(self);
    auto* const spare = static_cast<fields*>(qor::memory::require(uint64{count} * sizeof(fields), this_file, __LINE__));
    qor::string::merge_sort(elements, spare, count, [&](const fields& left, const fields& right) noexcept {
        const int order = compare(text(left), text(right));
        return ascending ? order < 0 : order > 0;
    });
    qor::glue::qor_do_free(spare, this_file, __LINE__);
}

} // namespace

void qor::glue::qorStringArray_Init(qorStringArray* self) noexcept { self->m_data = {}; }

void qor::glue::qorStringArray_Empty(qorStringArray* self) noexcept {
    for (uint32 i = 0; i < self->m_data.alloc; ++i)
        qorString_Destroy(&self->m_data.elements[i]);
    if (self->m_data.elements != nullptr)
        qor::glue::qor_do_free(self->m_data.elements, this_file, __LINE__);
    self->m_data = {};
}

void qor::glue::qorStringArray_SetFromArgVec(qorStringArray* self, int argc, char* const* argv) noexcept {
    qorStringArray made; // built separately, because the texts may lie in this array
    for (int i = 0; i < argc; ++i)
        made.Append(argv[i]);
    *self = static_cast<qorStringArray&&>(made);
}

void qor::glue::qorStringArray_SetFromVector(qorStringArray* self, const char* const* texts) noexcept {
    qorStringArray made;
    for (; texts != nullptr && *texts != nullptr; ++texts)
        made.Append(*texts);
    *self = static_cast<qorStringArray&&>(made);
}

void qor::glue::qorStringArray_Append(qorStringArray* self, const char* text, uint32 length) noexcept {
    // The text may belong to an element: growing moves the elements, but not the texts that they own.
    reserve(*self, uint64{self->m_data.count} + 1);
    qorString_Set(&self->m_data.elements[self->m_data.count], text, length);
    ++self->m_data.count;
}

void qor::glue::qorStringArray_AppendArray(qorStringArray* self, const qorStringArray& other) noexcept {
    const uint32 count = other.m_data.count; // fixed now, because `other` may be this array
    reserve(*self, uint64{self->m_data.count} + count);
    for (uint32 i = 0; i < count; ++i) {
        const std::string_view text = view(other.m_data.elements[i]);
        qorStringArray_Append(self, text.data(), static_cast<uint32>(text.size()));
    }
}

void qor::glue::qorStringArray_InsertAt(qorStringArray* self, uint32 index, const char* text, uint32 length) noexcept {
    const uint32 count = self->m_data.count;
    qorStringArray_Append(self, text, length);
    if (index < count) {
        fields* const elements = fields_of(*self);
        std::rotate(elements + index, elements + count, elements + count + 1);
    }
}

void qor::glue::qorStringArray_RemoveAt(qorStringArray* self, uint32 index, uint32 count) noexcept {
    qorStringArray::data& data = self->m_data;
    if (index >= data.count || count == 0)
        return;
    count = std::min(count, data.count - index);
    for (uint32 i = 0; i < count; ++i)
        qorString_Destroy(&data.elements[index + i]);
    move(&data.elements[index], &data.elements[index + count], data.count - index - count);
    data.count -= count;
    for (uint32 i = 0; i < count; ++i)
        qorString_Init(&data.elements[data.count + i], 0);
}

void qor::glue::qorStringArray_Copy(qorStringArray* self, const qorStringArray& other) noexcept {
    if (self == &other)
        return;
    qor::string::restart(*self);
    qorStringArray_AppendArray(self, other);
}

void qor::glue::qorStringArray_CopyPortion(qorStringArray* self, const qorStringArray& other, uint32 index,
                                           uint32 count) noexcept {
    index = std::min(index, other.m_data.count);
    count = std::min(count, other.m_data.count - index);
    if (self == &other) {
        qorStringArray_RemoveAt(self, index + count, self->m_data.count);
        qorStringArray_RemoveAt(self, 0, index);
        return;
    }
    qor::string::restart(*self);
    reserve(*self, count);
    for (uint32 i = index; i < index + count; ++i) {
        const std::string_view text = view(other.m_data.elements[i]);
        qorStringArray_Append(self, text.data(), static_cast<uint32>(text.size()));
    }
}

void qor::glue::qorStringArray_Sort(qorStringArray* self, bool ascending) noexcept {
    sort(*self, ascending, qor::string::compare);
}

void qor::glue::qorStringArray_SortNoCase(qorStringArray* self, bool ascending) noexcept {
    sort(*self, ascending, qor::string::compare_no_case);
}

void qor::glue::qorStringArray_SortUsing(qorStringArray* self, qorStringCompare compare, void* context) noexcept {
    sort(*self, true, [compare, context](std::string_view left, std::string_view right) noexcept {
        return compare(left.data(), right.data(), context);
    });
}

bool qor::glue::qorStringArray_AddUnique(qorStringArray* self, const char* text) noexcept {
    if (qorStringArray_FindString(self, text, 0) >= 0)
        return false;
    self->Append(text);
    return true;
}

bool qor::glue::qorStringArray_RemoveUnique(qorStringArray* self, const char* text) noexcept {
    const int32 index = qorStringArray_FindString(self, text, 0);
    if (index < 0)
        return false;
    qorStringArray_RemoveAt(self, static_cast<uint32>(index), 1);
    return true;
}

int32 qor::glue::qorStringArray_FindString(const qorStringArray* self, const char* text, uint32 start) noexcept {
    const std::string_view sought = view(text);
    for (uint32 i = start; i < self->m_data.count; ++i)
        if (view(self->m_data.elements[i]) == sought)
            return static_cast<int32>(i);
    return -1;
}
