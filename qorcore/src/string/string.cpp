// Strings: storage, assignment and change.
#include "memory/allocator.h"
#include "string/string_data.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace {

constexpr char this_file[] = "qorcore/src/string/string";

// A smaller size saves no memory: the smallest block of the C library is as large.
constexpr uint64 smallest_storage = 16;

// Doubling makes appending piece by piece take linear time.
uint32 storage_size(const qorString& self, uint64 length) noexcept {
    if (length > qor::string::max_length)
        qor::memory::exhausted(length + 1, this_file, __LINE__);
    const uint64 wanted = std::max({length + 1, 2ull * self.m_data.alloc, smallest_storage});
    return static_cast<uint32>(std::min<uint64>(wanted, qor::string::max_length + 1));
}

// Makes room for `length` bytes and a terminator behind the present text. The text may move.
void grow(qorString& self, uint64 length) noexcept {
    const uint32 size = storage_size(self, length);
    void* const block = qor::glue::qor_do_realloc(self.m_data.text, size, this_file, __LINE__);
    if (block == nullptr)
        qor::memory::exhausted(size, this_file, __LINE__);
    self.m_data.text = static_cast<char*>(block);
    self.m_data.alloc = size;
    self.m_data.text[self.m_data.length] = '\0';
}

// Like grow, for an operation whose source may lie in the string. Returns the address of the source afterwards.
const char* grow_with_source(qorString& self, uint64 length, const char* source) noexcept {
    // Comparing pointers into different blocks is undefined; comparing their addresses is not.
    const std::uintptr_t offset =
        reinterpret_cast<std::uintptr_t>(source) - reinterpret_cast<std::uintptr_t>(self.m_data.text);
    const bool inside = offset < self.m_data.alloc;
    grow(self, length);
    return inside ? self.m_data.text + offset : source;
}

void set_length(qorString& self, uint32 length) noexcept {
    self.m_data.length = length;
    self.m_data.text[length] = '\0';
}

// Reduces the string to the part from `begin` to `end`.
void keep(qorString& self, uint32 begin, uint32 end) noexcept {
    if (end - begin == self.m_data.length)
        return;
    if (begin != 0)
        std::memmove(self.m_data.text, self.m_data.text + begin, end - begin);
    set_length(self, end - begin);
}

uint32 first_black(const qorString& self) noexcept {
    uint32 index = 0;
    while (index < self.m_data.length && qor::string::is_white_space(self.m_data.text[index]))
        ++index;
    return index;
}

uint32 behind_last_black(const qorString& self) noexcept {
    uint32 index = self.m_data.length;
    while (index > 0 && qor::string::is_white_space(self.m_data.text[index - 1]))
        --index;
    return index;
}

} // namespace

void qor::glue::qorString_Init(qorString* self, uint32 capacity) noexcept {
    self->m_data = {};
    qorString_Reserve(self, capacity);
}

void qor::glue::qorString_Destroy(qorString* self) noexcept {
    if (self->m_data.text != nullptr)
        qor_do_free(self->m_data.text, this_file, __LINE__);
    self->m_data = {};
}

void qor::glue::qorString_Reserve(qorString* self, uint32 capacity) noexcept {
    if (capacity != 0 && capacity >= self->m_data.alloc)
        grow(*self, capacity);
}

void qor::glue::qorString_Set(qorString* self, const char* text, uint32 length) noexcept {
    qorString::data& data = self->m_data;
    if (length < data.alloc) [[likely]] {
        if (length != 0)
            std::memmove(data.text, text, length);
        set_length(*self, length);
        return;
    }
    if (length == 0)
        return; // without storage, the string is already empty
    // The old text need not be copied, so allocate a new block. The old block is freed last, because `text` may lie in
    // it.
    const uint32 size = storage_size(*self, length);
    char* const block = static_cast<char*>(qor::memory::require(size, this_file, __LINE__));
    std::memcpy(block, text, length);
    if (data.text != nullptr)
        qor_do_free(data.text, this_file, __LINE__);
    data.text = block;
    data.alloc = size;
    set_length(*self, length);
}

void qor::glue::qorString_Append(qorString* self, const char* text, uint32 length) noexcept {
    if (length == 0)
        return;
    const uint64 total = uint64{self->m_data.length} + length;
    if (total >= self->m_data.alloc)
        text = grow_with_source(*self, total, text);
    // A source in the string may include the terminator, where the copy begins.
    std::memmove(self->m_data.text + self->m_data.length, text, length);
    set_length(*self, static_cast<uint32>(total));
}

void qor::glue::qorString_Insert(qorString* self, uint32 index, const char* text, uint32 length) noexcept {
    if (length == 0)
        return;
    const uint32 old_length = self->m_data.length;
    const uint64 total = uint64{old_length} + length;
    if (total >= self->m_data.alloc)
        text = grow_with_source(*self, total, text);
    char* const gap = self->m_data.text + std::min(index, old_length);
    const std::uintptr_t offset =
        reinterpret_cast<std::uintptr_t>(text) - reinterpret_cast<std::uintptr_t>(self->m_data.text);
    const std::size_t before_gap = static_cast<std::size_t>(gap - self->m_data.text);
    std::memmove(gap + length, gap, old_length - before_gap + 1);
    if (offset > old_length) {
        std::memcpy(gap, text, length);
    } else {
        // The source lies in the string: its part behind the gap has moved by the length of the gap.
        const std::size_t unmoved = offset < before_gap ? std::min<std::size_t>(length, before_gap - offset) : 0;
        std::memmove(gap, text, unmoved);
        std::memmove(gap + unmoved, text + unmoved + length, length - unmoved);
    }
    set_length(*self, static_cast<uint32>(total));
}

void qor::glue::qorString_Remove(qorString* self, uint32 index, uint32 count) noexcept {
    const uint32 length = self->m_data.length;
    if (index >= length || count == 0)
        return;
    count = std::min(count, length - index);
    std::memmove(self->m_data.text + index, self->m_data.text + index + count, length - index - count);
    set_length(*self, length - count);
}

char* qor::glue::qorString_LockBuffer(qorString* self, uint32 size) noexcept {
    const uint32 end = std::max(size, self->m_data.length);
    if (end >= self->m_data.alloc)
        grow(*self, end);
    // A caller may fill the buffer to its last byte and let UnlockBuffer find the end.
    self->m_data.text[end] = '\0';
    return self->m_data.text;
}

void qor::glue::qorString_UnlockBuffer(qorString* self, int32 length) noexcept {
    const qorString::data& data = self->m_data;
    if (data.text == nullptr)
        return; // the buffer was not locked
    const uint32 room = data.alloc - 1;
    if (length >= 0) {
        set_length(*self, std::min(static_cast<uint32>(length), room));
        return;
    }
    const void* const end = std::memchr(data.text, '\0', room);
    set_length(*self, end != nullptr ? static_cast<uint32>(static_cast<const char*>(end) - data.text) : room);
}

void qor::glue::qorString_GetMid(const qorString* self, qorString& out, uint32 start, int32 count) noexcept {
    const std::string_view text = qor::string::view(*self);
    const std::size_t begin = std::min<std::size_t>(start, text.size());
    qor::string::assign(out, text.substr(begin, count < 0 ? text.npos : static_cast<std::size_t>(count)));
}

void qor::glue::qorString_GetRight(const qorString* self, qorString& out, uint32 count) noexcept {
    const std::string_view text = qor::string::view(*self);
    qor::string::assign(out, text.substr(text.size() - std::min<std::size_t>(count, text.size())));
}

void qor::glue::qorString_ToUpper(qorString* self) noexcept {
    std::transform(self->m_data.text, self->m_data.text + self->m_data.length, self->m_data.text,
                   qor::string::to_upper);
}

void qor::glue::qorString_ToLower(qorString* self) noexcept {
    std::transform(self->m_data.text, self->m_data.text + self->m_data.length, self->m_data.text,
                   qor::string::to_lower);
}

void qor::glue::qorString_TrimLeft(qorString* self) noexcept { keep(*self, first_black(*self), self->m_data.length); }

void qor::glue::qorString_TrimRight(qorString* self) noexcept { keep(*self, 0, behind_last_black(*self)); }

void qor::glue::qorString_TrimBoth(qorString* self) noexcept {
    // Trim the end first: a string of white space is then empty, and the front has nothing left to trim.
    keep(*self, 0, behind_last_black(*self));
    keep(*self, first_black(*self), self->m_data.length);
}
