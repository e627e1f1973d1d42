// The six maps. docs/containers.md has examples.
#pragma once

#include "qor/system/Interface.h"
#include "qor/system/TextView.h"
#include "qor/system/template/Owned.h"

#include <optional>
#include <span>

// Remembers how far a walk over a map has come. It is plain memory and can be copied and dropped.
struct qorMapCursor {
    uint64 place[2] = {};   // the library's
    uint64 changes = 0;     // of the map when the walk began
    bool has_begun = false; // false: the walk begins at the first entry
};

// A hash table from KEY to VALUE, which are numbers, texts or, for values, pointers that the map only keeps. Keys occur
// once. A map of texts keeps copies of its keys and values; the ones that it gives are in place and valid until that
// key changes or goes, or, if it is short, until anything is added. Hashing uses a random key for each process, so that
// nobody can choose keys that collide.
//
// A map is not thread-safe; several threads may read one that none changes. If memory runs out, the process ends with a
// report. That a key is missing is no error and leaves the last error unchanged.
//
// Each call is an indirect one. For many entries, GetMany to RemoveMany take arrays and need one call.
template <class KEY, class VALUE, class MAP>
class zetMap : public IQORInterface {
public:
    // An entry, as walks give it.
    struct entry {
        KEY key;     // a text belongs to the map, see above
        VALUE value; // a copy
    };

    // The number of entries.
    virtual uint64 GetCount() noexcept = 0;

    // Returns whether the key is there, and its value; *value is unchanged if it is not.
    virtual bool Get(KEY key, VALUE* value) noexcept = 0;
    // Sets the value of a key; Add does so only if it is missing. Both return whether the key is new.
    virtual bool Set(KEY key, VALUE value) noexcept = 0;
    virtual bool Add(KEY key, VALUE value) noexcept = 0;
    // Returns whether the key was there.
    virtual bool Remove(KEY key) noexcept = 0;

    // The same for `count` keys, in their order. GetMany leaves the values of missing keys unchanged and, if `found` is
    // not null, says of each key whether it is there. Each returns how many keys got the answer true.
    virtual uint64 GetMany(const KEY* keys, VALUE* values, bool* found, uint64 count) noexcept = 0;
    virtual uint64 SetMany(const KEY* keys, const VALUE* values, uint64 count) noexcept = 0;
    virtual uint64 AddMany(const KEY* keys, const VALUE* values, uint64 count) noexcept = 0;
    virtual uint64 RemoveMany(const KEY* keys, uint64 count) noexcept = 0;

    // Removes the entries for which `unwanted` returns true, and returns their number. `unwanted` must not change the
    // map.
    virtual uint64 RemoveIf(bool (*unwanted)(const entry& each, void* context) noexcept, void* context) noexcept = 0;

    // Removes everything and frees the memory.
    virtual void Empty() noexcept = 0;
    // Makes room for this many entries.
    virtual void Reserve(uint64 count) noexcept = 0;

    // Walks over the entries, in no particular order: gets the next ones, at most `room`, and returns their number, 0
    // at the end. A walk ends, too, when the map has changed since it began.
    virtual uint64 Next(qorMapCursor& cursor, entry* entries, uint64 room) noexcept = 0;
    // A count of the changes that end a walk, at the same address as long as the map lives: all but replacing a number
    // or a pointer.
    virtual const uint64* GetChanges() noexcept = 0;

    // Gets the keys in ascending order, at most `room`, and returns their number. Texts are compared by unsigned bytes.
    virtual uint64 GetSortedKeys(KEY* keys, uint64 room) noexcept = 0;

    // Becomes a copy of another map, or of itself; and whether two maps hold the same keys with the same values.
    virtual bool Copy(MAP* other) noexcept = 0;
    virtual bool IsEqual(MAP* other) noexcept = 0;
    // A hash that is equal for equal maps, within one process.
    virtual uint64 GetHash() noexcept = 0;

    // Stream form (docs/stream-form.md). Read replaces the content, and leaves it unchanged on failure. Memory is only
    // allocated for bytes that arrive. A map of pointers has no stream form: both fail.
    virtual bool Write(IQORDataSink* sink) noexcept = 0;
    [[nodiscard]] virtual bool Read(IQORDataSource* source) noexcept = 0;

    // The value of a key, if it is there.
    std::optional<VALUE> Find(KEY key) noexcept {
        VALUE value{};
        return Get(key, &value) ? std::optional(value) : std::nullopt;
    }
    bool IsPresent(KEY key) noexcept {
        VALUE value{};
        return Get(key, &value);
    }
    // Removes the entries that `unwanted(key, value)` selects.
    template <class PREDICATE>
    uint64 RemoveIf(PREDICATE&& unwanted) noexcept {
        return RemoveIf(
            [](const entry& each, void* context) noexcept -> bool {
                return (*static_cast<std::remove_reference_t<PREDICATE>*>(context))(each.key, each.value);
            },
            const_cast<void*>(static_cast<const void*>(&unwanted)));
    }

    // For range-for. The loop must not change the map, except the values of maps without texts: that is reported, and
    // the loop ends. RemoveIf removes during a walk, and a copy can be walked while the map changes.
    class iterator {
    public:
        using value_type = entry;               // what it stands on
        using difference_type = std::ptrdiff_t; // as iterators need it

        // Stands on the first of the entries, which it fetches.
        explicit iterator(zetMap* map) noexcept : m_map(map), m_changes(map->GetChanges()), m_before(*m_changes) {
            fetch();
        }
        // The current entry.
        const entry& operator*() const noexcept { return m_entries[m_at]; }
        const entry* operator->() const noexcept { return &m_entries[m_at]; }
        // Goes on to the next one.
        iterator& operator++() noexcept {
            if (*m_changes != m_before) [[unlikely]] {
                qor::glue::assert_failed("the map has not changed", "zetMap::iterator::operator++()",
                                         "qorcore/include/qor/system/Map", 1);
                m_count = 0;
            } else if (++m_at == m_count) {
                fetch();
            }
            return *this;
        }
        void operator++(int) noexcept { ++*this; }
        // Whether there is no further one.
        bool operator==(std::default_sentinel_t) const noexcept { return m_count == 0; }

    private:
        // Few enough for short walks, and enough to make the indirect calls cheap.
        static constexpr uint64 room = 64;

        void fetch() noexcept {
            m_at = 0;
            m_count = m_map->Next(m_cursor, m_entries, room);
        }

        zetMap* m_map;
        const uint64* m_changes;
        uint64 m_before;
        qorMapCursor m_cursor;
        uint64 m_at = 0;
        uint64 m_count = 0;
        entry m_entries[room];
    };
    // The beginning and the end of a walk.
    iterator begin() noexcept { return iterator(this); }
    std::default_sentinel_t end() noexcept { return {}; }

protected:
    ~zetMap() = default;
};

// From texts to pointers.
class IQORMapStringToVoid : public zetMap<qorTextView, void*, IQORMapStringToVoid> {
protected:
    ~IQORMapStringToVoid() = default;
};

// From texts to numbers.
class IQORMapStringToU32 : public zetMap<qorTextView, uint32, IQORMapStringToU32> {
protected:
    ~IQORMapStringToU32() = default;
};

// From numbers to texts.
class IQORMapU32ToString : public zetMap<uint32, qorTextView, IQORMapU32ToString> {
protected:
    ~IQORMapU32ToString() = default;
};

// From numbers to pointers.
class IQORMapU32ToVoid : public zetMap<uint32, void*, IQORMapU32ToVoid> {
protected:
    ~IQORMapU32ToVoid() = default;
};

// From texts to texts.
class IQORMapStringToString : public zetMap<qorTextView, qorTextView, IQORMapStringToString> {
protected:
    ~IQORMapStringToString() = default;
};

// From numbers to numbers.
class IQORMapU32ToU32 : public zetMap<uint32, uint32, IQORMapU32ToU32> {
protected:
    ~IQORMapU32ToU32() = default;
};

// Create an empty map, with a reference for the caller. Throw std::bad_alloc.
inline void create_IQORMapStringToVoid(IQORMapStringToVoid** out) {
    qor::glue::create_IQORMapStringToVoid(out);
    qor::glue::or_throw(*out);
}
inline void create_IQORMapStringToU32(IQORMapStringToU32** out) {
    qor::glue::create_IQORMapStringToU32(out);
    qor::glue::or_throw(*out);
}
inline void create_IQORMapU32ToString(IQORMapU32ToString** out) {
    qor::glue::create_IQORMapU32ToString(out);
    qor::glue::or_throw(*out);
}
inline void create_IQORMapU32ToVoid(IQORMapU32ToVoid** out) {
    qor::glue::create_IQORMapU32ToVoid(out);
    qor::glue::or_throw(*out);
}
inline void create_IQORMapStringToString(IQORMapStringToString** out) {
    qor::glue::create_IQORMapStringToString(out);
    qor::glue::or_throw(*out);
}
inline void create_IQORMapU32ToU32(IQORMapU32ToU32** out) {
    qor::glue::create_IQORMapU32ToU32(out);
    qor::glue::or_throw(*out);
}

// The maps as values: `qorMapStringToU32 ports; ports->Set("http", 80);`
using qorMapStringToVoid = zetOwned<IQORMapStringToVoid, create_IQORMapStringToVoid>;
using qorMapStringToU32 = zetOwned<IQORMapStringToU32, create_IQORMapStringToU32>;
using qorMapU32ToString = zetOwned<IQORMapU32ToString, create_IQORMapU32ToString>;
using qorMapU32ToVoid = zetOwned<IQORMapU32ToVoid, create_IQORMapU32ToVoid>;
using qorMapStringToString = zetOwned<IQORMapStringToString, create_IQORMapStringToString>;
using qorMapU32ToU32 = zetOwned<IQORMapU32ToU32, create_IQORMapU32ToU32>;
