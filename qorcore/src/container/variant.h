// Inside the library: variants at their places in lists and sets.
//
// The level of a list or set says how many stand around it, itself included: 1 for one that stands alone. No level is
// above qorMaxNesting, so functions that follow the nesting need little stack.
#pragma once

#include "qor/qor.h"

namespace qor::container {

// Sets the last error, and returns whether the level is possible.
bool check_level(uint32 level) noexcept;

// Copies a value; a list or set in it gets the level. Returns false if it is nested too deep, and leaves `to`
// unchanged.
bool copy(qorVariant& to, const qorVariant& from, uint32 level) noexcept;

// Create an empty list or set, with a reference for the caller.
IQORVariantList* new_list(uint32 level) noexcept;
IQORAttributeSet* new_set(uint32 level) noexcept;

// Make a variant that holds a new list or set.
qorVariant variant_of_list(uint32 level) noexcept;
qorVariant variant_of_set(uint32 level) noexcept;

// Copies elements from one list or set to another, which is empty.
bool copy_elements(IQORVariantList* to, IQORVariantList* from) noexcept;
bool copy_elements(IQORAttributeSet* to, IQORAttributeSet* from) noexcept;

// The order of qorVariant.
int compare_lists(IQORVariantList* left, IQORVariantList* right) noexcept;
int compare_sets(IQORAttributeSet* left, IQORAttributeSet* right) noexcept;

// Equal for equal contents.
uint64 hash_list(IQORVariantList* list) noexcept;
uint64 hash_set(IQORAttributeSet* set) noexcept;
uint64 hash_attribute(qorTextView name, const qorVariant& value) noexcept;

// Three-way results as Compare returns them.
constexpr int as_int(std::strong_ordering order) noexcept { return std::is_lt(order) ? -1 : std::is_gt(order) ? 1 : 0; }

} // namespace qor::container
