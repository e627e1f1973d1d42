// Attribute sets, the differences between them, and arrays of both. docs/containers.md has examples.
//
// None of these objects is thread-safe. If memory runs out, the process ends with a report. Pointers to sets, lists and
// deltas that an operation returns come without a reference; they are valid until that element is removed, unless the
// caller adds a reference.
#pragma once

#include "qor/system/Lists.h"

// A name and its value.
struct qorAttribute {
    qorString name;   // bytes, UTF-8 by convention
    qorVariant value; // of any kind
};

// Values by name. A name occurs once; names are compared byte by byte. The set keeps the order in which the names were
// added, but two sets are equal if they hold the same names with equal values in any order.
//
// Looking up a name takes the same time whatever the size of the set; removing one takes time in proportion to it.
class IQORAttributeSet : public IQORInterface {
public:
    // The number of attributes, and the first of them; they lie one behind the other in their order until the set
    // changes. Names must not be changed. Values may be changed in place; Set puts in a list or a set, because an
    // assignment does not check the nesting.
    virtual uint32 GetCount() noexcept = 0;
    virtual qorAttribute* GetAttributes() noexcept = 0;
    // The value of a name, or null; and its place in the order, or -1.
    virtual qorVariant* Find(qorTextView name) noexcept = 0;
    virtual int64 FindIndex(qorTextView name) noexcept = 0;

    // Sets a value, a copy of `value`: a present name keeps its place, a new one comes last. Fails if lists and sets
    // would be nested more than qorMaxNesting deep, and leaves the set unchanged then, like the other operations that
    // return bool.
    virtual bool Set(qorTextView name, const qorVariant& value) noexcept = 0;
    // Set a new list or set, which the caller then fills in place. Null if nested too deep.
    virtual IQORVariantList* SetList(qorTextView name) noexcept = 0;
    virtual IQORAttributeSet* SetSet(qorTextView name) noexcept = 0;
    // Returns false if there is no such name.
    virtual bool Remove(qorTextView name) noexcept = 0;
    virtual void RemoveAt(uint32 index, uint32 count) noexcept = 0;
    virtual void Empty() noexcept = 0;
    virtual void Reserve(uint32 count) noexcept = 0;

    // Orders the attributes by name.
    virtual void Sort(bool ascending) noexcept = 0;

    // Like those of IQORVariantList. The JSON text has to be an object.
    virtual bool Copy(IQORAttributeSet* other) noexcept = 0;
    virtual int Compare(IQORAttributeSet* other) noexcept = 0;
    virtual uint64 GetHash() noexcept = 0;
    virtual bool Write(IQORDataSink* sink) noexcept = 0;
    [[nodiscard]] virtual bool Read(IQORDataSource* source) noexcept = 0;
    virtual bool WriteJson(qorString& out, uint32 indent) noexcept = 0;
    [[nodiscard]] virtual bool ReadJson(const char* text, uint64 length) noexcept = 0;

    // The attributes, for range-for and the algorithms of the C++ library.
    std::span<qorAttribute> Attributes() noexcept { return {GetAttributes(), GetCount()}; }
    qorAttribute* begin() noexcept { return GetAttributes(); }
    qorAttribute* end() noexcept { return GetAttributes() + GetCount(); }
    // The value of a name, or a null variant.
    const qorVariant& operator[](qorTextView name) noexcept {
        static const qorVariant nothing{};
        const qorVariant* const found = Find(name);
        return found != nullptr ? *found : nothing;
    }
    [[nodiscard]] bool ReadJson(qorTextView text) noexcept { return ReadJson(text.text, text.length); }
    bool IsEqual(IQORAttributeSet* other) noexcept { return Compare(other) == 0; }

protected:
    ~IQORAttributeSet() = default;
};

// The change of one attribute. At least one of the two values is there.
struct qorAttributeChange {
    qorString name;    // of the attribute
    bool was;          // whether the name was there before, with the value `before`
    bool is;           // whether it is there afterwards, with the value `after`
    qorVariant before; // null if it was not there
    qorVariant after;  // null if it is not there
};

// The difference between two sets: the changes that turn the first into the second. A name occurs once. A value that is
// a list or a set changes as a whole.
class IQORAttributeSetDelta : public IQORInterface {
public:
    // The number of changes, and the first of them; they lie one behind the other until the delta changes.
    virtual uint32 GetCount() noexcept = 0;
    virtual const qorAttributeChange* GetChanges() noexcept = 0;
    // The change of a name, or null.
    virtual const qorAttributeChange* Find(qorTextView name) noexcept = 0;

    // Becomes the difference: first what was removed or changed, in the order of `from`, then what was added, in the
    // order of `to`. Apply(from) gives a set that is equal to `to`.
    virtual void SetDifference(IQORAttributeSet* from, IQORAttributeSet* to) noexcept = 0;

    // Applies the changes to a set. Changed attributes keep their places, new ones come last. Fails if a value in the
    // set is not the one before the change; the last error names the attribute, and the set is unchanged.
    virtual bool Apply(IQORAttributeSet* set) noexcept = 0;
    // Becomes the difference in the other direction.
    virtual void Invert() noexcept = 0;

    // Adds the changes of another delta, which begins with the same set. A change that both make occurs once. If both
    // change an attribute in different ways, this delta keeps its own change, and the name is added to `conflicts`.
    // Returns false if there is such a conflict; the last error names the first.
    virtual bool Merge(IQORAttributeSetDelta* other, qorStringArray& conflicts) noexcept = 0;

    // Removes all changes.
    virtual void Empty() noexcept = 0;

    // Copying, equality (the same changes in any order), hashing and stream form, as of a set.
    virtual bool Copy(IQORAttributeSetDelta* other) noexcept = 0;
    virtual bool IsEqual(IQORAttributeSetDelta* other) noexcept = 0;
    virtual uint64 GetHash() noexcept = 0;
    virtual bool Write(IQORDataSink* sink) noexcept = 0;
    [[nodiscard]] virtual bool Read(IQORDataSource* source) noexcept = 0;

    // The changes, for range-for and the algorithms of the C++ library.
    std::span<const qorAttributeChange> Changes() noexcept { return {GetChanges(), GetCount()}; }
    const qorAttributeChange* begin() noexcept { return GetChanges(); }
    const qorAttributeChange* end() noexcept { return GetChanges() + GetCount(); }

protected:
    ~IQORAttributeSetDelta() = default;
};

// What an array of sets and an array of deltas have in common. Elements are counted from 0 and belong to the array.
template <class ELEMENT, class ARRAY>
class zetElementArray : public IQORInterface {
public:
    // The number of elements, and the first of the pointers to them. The elements may be changed in place.
    virtual uint32 GetCount() noexcept = 0;
    virtual ELEMENT* const* GetElements() noexcept = 0;

    // Add a copy of `element`; an index beyond the end means the end.
    virtual void Append(ELEMENT* element) noexcept = 0;
    virtual void InsertAt(uint32 index, ELEMENT* element) noexcept = 0;
    // Adds an empty element, which the caller then fills in place.
    virtual ELEMENT* AppendNew() noexcept = 0;
    // The range is cut at the end.
    virtual void RemoveAt(uint32 index, uint32 count) noexcept = 0;
    virtual void Empty() noexcept = 0;

    // Becomes a copy of another array; and whether the elements are equal, one by one.
    virtual bool Copy(ARRAY* other) noexcept = 0;
    virtual bool IsEqual(ARRAY* other) noexcept = 0;
    // A hash that is equal for equal arrays, within one process.
    virtual uint64 GetHash() noexcept = 0;

    // Stream form, like that of a set.
    virtual bool Write(IQORDataSink* sink) noexcept = 0;
    [[nodiscard]] virtual bool Read(IQORDataSource* source) noexcept = 0;

    // The elements, for range-for and the algorithms of the C++ library.
    std::span<ELEMENT* const> Elements() noexcept { return {GetElements(), GetCount()}; }
    ELEMENT* const* begin() noexcept { return GetElements(); }
    ELEMENT* const* end() noexcept { return GetElements() + GetCount(); }

protected:
    ~zetElementArray() = default;
};

// An array of attribute sets.
class IQORAttributeSetArray : public zetElementArray<IQORAttributeSet, IQORAttributeSetArray> {
public:
    // A stable sort by the value of an attribute; sets without it count as null and come first if `ascending`.
    virtual void SortBy(qorTextView name, bool ascending) noexcept = 0;
    // The index of the first set at or behind `start` whose attribute has this value, or -1.
    virtual int64 Find(qorTextView name, const qorVariant& value, uint32 start) noexcept = 0;

protected:
    ~IQORAttributeSetArray() = default;
};

// An array of deltas: a history of one set.
class IQORAttributeSetDeltaArray : public zetElementArray<IQORAttributeSetDelta, IQORAttributeSetDeltaArray> {
public:
    // Applies all deltas, one after the other. If one does not fit, fails and leaves the set unchanged.
    virtual bool Apply(IQORAttributeSet* set) noexcept = 0;
    // Becomes the way back: the inverted deltas in the opposite order.
    virtual void Invert() noexcept = 0;

protected:
    ~IQORAttributeSetDeltaArray() = default;
};

// Create an empty object, with a reference for the caller. Throw std::bad_alloc.
inline void create_IQORAttributeSet(IQORAttributeSet** out) {
    qor::glue::create_IQORAttributeSet(out);
    qor::glue::or_throw(*out);
}
inline void create_IQORAttributeSetDelta(IQORAttributeSetDelta** out) {
    qor::glue::create_IQORAttributeSetDelta(out);
    qor::glue::or_throw(*out);
}
inline void create_IQORAttributeSetArray(IQORAttributeSetArray** out) {
    qor::glue::create_IQORAttributeSetArray(out);
    qor::glue::or_throw(*out);
}
inline void create_IQORAttributeSetDeltaArray(IQORAttributeSetDeltaArray** out) {
    qor::glue::create_IQORAttributeSetDeltaArray(out);
    qor::glue::or_throw(*out);
}

// The same as values: `qorAttributeSet set; set->Set("port", 7447); for (const auto& [name, value] : set) ...`
using qorAttributeSet = zetOwned<IQORAttributeSet, create_IQORAttributeSet>;
using qorAttributeSetDelta = zetOwned<IQORAttributeSetDelta, create_IQORAttributeSetDelta>;
using qorAttributeSetArray = zetOwned<IQORAttributeSetArray, create_IQORAttributeSetArray>;
using qorAttributeSetDeltaArray = zetOwned<IQORAttributeSetDeltaArray, create_IQORAttributeSetDeltaArray>;
