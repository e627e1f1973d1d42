// The operations of qorVector: growth, gaps, and the storage.
#include "memory/allocator.h"

#include <algorithm>
#include <climits>
#include <cstring>

namespace {

constexpr char source[] = "qorcore/src/memory/vector";

// Makes room for `count` elements in total. Returns false if there is no memory, or if they exceed the range of counts.
bool make_room(qorVector& vector, uint64 count) noexcept {
    auto& data = vector.m_data;
    if (count <= data.alloc)
        return true;
    if (count > UINT_MAX)
        return false;
    // Grow by half: repeated appending takes linear time, and at most a third of the storage is unused.
    const uint64 wanted = std::min<uint64>(std::max<uint64>(count, data.alloc + data.alloc / 2ull), UINT_MAX);
    void* const moved = qor::glue::qor_do_realloc(data.elements, wanted * data.chunk_size, source, __LINE__);
    if (moved == nullptr)
        return false;
    data.elements = static_cast<unsigned char*>(moved);
    data.alloc = static_cast<uint32>(wanted);
    return true;
}

unsigned char* element(qorVector& vector, uint64 index) noexcept {
    return vector.m_data.elements + index * vector.m_data.chunk_size;
}

} // namespace

void qor::glue::qorVector_Init(qorVector* self, unsigned chunk_size) noexcept {
    self->m_data = {nullptr, 0, chunk_size, 0};
}

void qor::glue::qorVector_Empty(qorVector* self) noexcept {
    qor_do_free(self->m_data.elements, source, __LINE__);
    self->Detach();
}

void* qor::glue::qorVector_Append(qorVector* self, unsigned count) noexcept {
    return qorVector_Insert(self, self->m_data.count, count);
}

void* qor::glue::qorVector_Insert(qorVector* self, unsigned index, unsigned count) noexcept {
    auto& data = self->m_data;
    if (!make_room(*self, uint64{data.count} + count))
        return nullptr;
    index = std::min(index, data.count);
    unsigned char* const opened = element(*self, index);
    if (index != data.count && count != 0)
        std::memmove(element(*self, uint64{index} + count), opened, std::size_t{data.count - index} * data.chunk_size);
    data.count += count;
    return opened;
}

void qor::glue::qorVector_Collapse(qorVector* self, unsigned index, unsigned count) noexcept {
    auto& data = self->m_data;
    index = std::min(index, data.count);
    count = std::min(count, data.count - index);
    if (count == 0)
        return;
    const unsigned tail = data.count - index - count;
    if (tail != 0)
        std::memmove(element(*self, index), element(*self, uint64{index} + count), std::size_t{tail} * data.chunk_size);
    data.count -= count;
}

bool qor::glue::qorVector_SetAlloc(qorVector* self, unsigned count) noexcept { return make_room(*self, count); }
