// Inside the library: JSON.
#pragma once

#include "qor/qor.h"

namespace qor::container {

// Write a text; false (last error) and an empty text if the value has no JSON form.
bool write_json(const qorVariant& value, uint32 indent, qorString& out) noexcept;
bool write_json(IQORVariantList* list, uint32 indent, qorString& out) noexcept;
bool write_json(IQORAttributeSet* set, uint32 indent, qorString& out) noexcept;

// Read a text into a value or into an empty list or set; false (last error) if it is no such text.
bool read_json(const char* text, uint64 length, qorVariant& value) noexcept;
bool read_json(const char* text, uint64 length, IQORVariantList* list) noexcept;
bool read_json(const char* text, uint64 length, IQORAttributeSet* set) noexcept;

} // namespace qor::container
