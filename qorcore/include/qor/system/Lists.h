// Lists: of variants, of values of one kind, and of objects. docs/containers.md has examples.
//
// Elements are counted from 0. They are addressed by index and lie one behind the other, so a span of them is valid
// until the list changes. An element that is removed or inserted moves all those behind it. A list is not thread-safe.
// If memory runs out, the process ends with a report.
#pragma once

#include "qor/system/Interface.h"
#include "qor/system/Variant.h"
#include "qor/system/template/Owned.h"

// A list of variants, of any kinds.
//
// A list or set that lies in a list belongs to it. `IQORVariantList*` and `IQORAttributeSet*` that an operation returns
// come without a reference; they are valid until that element is removed, unless the caller adds a reference.
class IQORVariantList : public IQORInterface {
public:
    // The number of elements, and the first of them. They may be changed in place; SetAt puts in a list or a set,
    // because an assignment does not check the nesting.
    virtual uint32 GetCount() noexcept = 0;
    virtual qorVariant* GetValues() noexcept = 0;

    // Add a copy of `value`; an index beyond the end means the end. Fail if lists and sets would be nested more than
    // qorMaxNesting deep, and leave the list unchanged then, like the other operations that return bool.
    virtual bool Append(const qorVariant& value) noexcept = 0;
    virtual bool InsertAt(uint32 index, const qorVariant& value) noexcept = 0;
    // Replaces an element. Fails also if there is no such element.
    virtual bool SetAt(uint32 index, const qorVariant& value) noexcept = 0;
    // Add a new list or set, which the caller then fills in place. Null if nested too deep.
    virtual IQORVariantList* AppendList() noexcept = 0;
    virtual IQORAttributeSet* AppendSet() noexcept = 0;
    // The range is cut at the end.
    virtual void RemoveAt(uint32 index, uint32 count) noexcept = 0;
    virtual void Empty() noexcept = 0;
    virtual void Reserve(uint32 count) noexcept = 0;

    // Sorts in the order of qorVariant; equal values keep their order in both directions.
    virtual void Sort(bool ascending) noexcept = 0;
    // The index of the first element at or behind `start` that is equal to `value`, or -1.
    virtual int64 Find(const qorVariant& value, uint32 start) noexcept = 0;

    // Becomes a copy of another list, or of itself.
    virtual bool Copy(IQORVariantList* other) noexcept = 0;
    // Like strcmp, in the order of qorVariant; and a hash that is equal for equal lists, within one process.
    virtual int Compare(IQORVariantList* other) noexcept = 0;
    virtual uint64 GetHash() noexcept = 0;

    // Stream form and JSON: like those of qorVariant. The JSON text has to be an array.
    virtual bool Write(IQORDataSink* sink) noexcept = 0;
    [[nodiscard]] virtual bool Read(IQORDataSource* source) noexcept = 0;
    virtual bool WriteJson(qorString& out, uint32 indent) noexcept = 0;
    [[nodiscard]] virtual bool ReadJson(const char* text, uint64 length) noexcept = 0;

    // The elements, for range-for and the algorithms of the C++ library.
    std::span<qorVariant> Values() noexcept { return {GetValues(), GetCount()}; }
    qorVariant* begin() noexcept { return GetValues(); }
    qorVariant* end() noexcept { return GetValues() + GetCount(); }
    [[nodiscard]] bool ReadJson(qorTextView text) noexcept { return ReadJson(text.text, text.length); }
    bool IsEqual(IQORVariantList* other) noexcept { return Compare(other) == 0; }

protected:
    ~IQORVariantList() = default;
};

// A list of values that are all of one kind, kept as compactly as an array: 8 bytes for a number, a time or a truth
// value, 8 bytes and the content for a text or bytes. The first value determines the kind; an empty list has the kind
// null.
class IQORValueList : public IQORInterface {
public:
    // The number of values, and their kind.
    virtual uint32 GetCount() noexcept = 0;
    virtual qorVariantKind GetKind() noexcept = 0;

    // Gets a copy of an element. Returns false and leaves `out` unchanged if there is no such element.
    virtual bool GetAt(uint32 index, qorVariant& out) noexcept = 0;
    // The address of the first number (int64, uint64 or double, as the kind says), time or truth value (both uint64);
    // null for other kinds.
    virtual const void* GetNumbers() noexcept = 0;
    // An element of a list of texts or bytes, in place; empty in any other case.
    virtual qorTextView GetText(uint32 index) noexcept = 0;

    // Add values; an index beyond the end means the end. A number of another kind is converted if it keeps its value.
    // Fail for a value that the list does not take: of another kind, null, a list or a set.
    virtual bool Append(const qorVariant& value) noexcept = 0;
    virtual bool InsertAt(uint32 index, const qorVariant& value) noexcept = 0;
    virtual bool SetAt(uint32 index, const qorVariant& value) noexcept = 0;
    // Adds many numbers, times or truth values at once, from an array as GetNumbers returns it.
    virtual bool AppendNumbers(qorVariantKind kind, const void* numbers, uint32 count) noexcept = 0;
    // The range is cut at the end.
    virtual void RemoveAt(uint32 index, uint32 count) noexcept = 0;
    // Removes all values; the next one determines the kind anew.
    virtual void Empty() noexcept = 0;
    virtual void Reserve(uint32 count) noexcept = 0;

    // Sorts in the order of qorVariant.
    virtual void Sort(bool ascending) noexcept = 0;
    // The index of the first element at or behind `start` that is equal to `value`, or -1.
    virtual int64 Find(const qorVariant& value, uint32 start) noexcept = 0;

    // Like those of IQORVariantList.
    virtual bool Copy(IQORValueList* other) noexcept = 0;
    virtual int Compare(IQORValueList* other) noexcept = 0;
    virtual uint64 GetHash() noexcept = 0;
    virtual bool Write(IQORDataSink* sink) noexcept = 0;
    [[nodiscard]] virtual bool Read(IQORDataSource* source) noexcept = 0;

    // The numbers, if they are of the kind of TYPE: int64, uint64 or double.
    template <class TYPE>
    std::span<const TYPE> Numbers() noexcept {
        if (GetKind() != kind_of<TYPE>())
            return {};
        return {static_cast<const TYPE*>(GetNumbers()), GetCount()};
    }
    // Adds numbers.
    template <class TYPE>
    bool Append(std::span<const TYPE> numbers) noexcept {
        return AppendNumbers(kind_of<TYPE>(), numbers.data(), static_cast<uint32>(numbers.size()));
    }
    bool IsEqual(IQORValueList* other) noexcept { return Compare(other) == 0; }

protected:
    ~IQORValueList() = default;

private:
    template <class TYPE>
    static consteval qorVariantKind kind_of() {
        static_assert(std::same_as<TYPE, int64> || std::same_as<TYPE, uint64> || std::same_as<TYPE, double>);
        return std::same_as<TYPE, int64>    ? qorVariantKind::integer
               : std::same_as<TYPE, uint64> ? qorVariantKind::natural
                                            : qorVariantKind::real;
    }
};

// Like strcmp, for two objects of a list.
using qorObjectCompare = int (*)(IQORInterface* left, IQORInterface* right, void* context) noexcept;

// A list of objects. It holds a reference to each of them; null is allowed. Objects are equal if they are the same
// interface pointer. A reference is dropped only when the list is consistent again, so the object's end may use the
// list.
class IQORObjectList : public IQORInterface {
public:
    // The number of pointers, and the first of them; without references for the caller.
    virtual uint32 GetCount() noexcept = 0;
    virtual IQORInterface* const* GetObjects() noexcept = 0;
    // Asks an object for an interface, as QueryInterface does. Returns 0 if there is no such object, too.
    virtual int QueryAt(uint32 index, const char* name, void** out) noexcept = 0;

    // Add a reference to `object`; an index beyond the end means the end.
    virtual void Append(IQORInterface* object) noexcept = 0;
    virtual void InsertAt(uint32 index, IQORInterface* object) noexcept = 0;
    // Replaces an element. Returns false if there is no such element.
    virtual bool SetAt(uint32 index, IQORInterface* object) noexcept = 0;
    // The range is cut at the end.
    virtual void RemoveAt(uint32 index, uint32 count) noexcept = 0;
    // Removes the first element that is this object; returns false if the list does not contain it.
    virtual bool Remove(IQORInterface* object) noexcept = 0;
    virtual void Empty() noexcept = 0;
    virtual void Reserve(uint32 count) noexcept = 0;

    // A stable sort. If `compare` is inconsistent, the resulting order is unspecified; it must not change the list.
    virtual void Sort(qorObjectCompare compare, void* context) noexcept = 0;
    // The index of the first element at or behind `start` that is this object, or -1.
    virtual int64 Find(IQORInterface* object, uint32 start) noexcept = 0;

    // Becomes a list of the same objects; and whether two lists hold the same objects in the same order.
    virtual bool Copy(IQORObjectList* other) noexcept = 0;
    virtual bool IsEqual(IQORObjectList* other) noexcept = 0;

    // The pointers, for range-for and the algorithms of the C++ library.
    std::span<IQORInterface* const> Objects() noexcept { return {GetObjects(), GetCount()}; }
    IQORInterface* const* begin() noexcept { return GetObjects(); }
    IQORInterface* const* end() noexcept { return GetObjects() + GetCount(); }

protected:
    ~IQORObjectList() = default;
};

// Create an empty list, with a reference for the caller. Throw std::bad_alloc.
inline void create_IQORVariantList(IQORVariantList** out) {
    qor::glue::create_IQORVariantList(out);
    qor::glue::or_throw(*out);
}
inline void create_IQORValueList(IQORValueList** out) {
    qor::glue::create_IQORValueList(out);
    qor::glue::or_throw(*out);
}
inline void create_IQORObjectList(IQORObjectList** out) {
    qor::glue::create_IQORObjectList(out);
    qor::glue::or_throw(*out);
}

// The lists as values: `qorVariantList list; list->Append(5); for (const qorVariant& each : list) ...`
using qorVariantList = zetOwned<IQORVariantList, create_IQORVariantList>;
using qorValueList = zetOwned<IQORValueList, create_IQORValueList>;
using qorObjectList = zetOwned<IQORObjectList, create_IQORObjectList>;
