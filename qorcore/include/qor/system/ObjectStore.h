// Object stores: attribute sets by key, in one file that several processes use at once. Changes are made in
// transactions; what a call has confirmed survives the end of the process and of the power. docs/object-store.md has
// examples, and says what a store can rely on.
//
// A key is any bytes, UTF-8 by convention, at most qorMaxStoreKey; the stream form of a set has at most
// qorMaxStoreValue bytes. Keys are ordered by unsigned bytes. Each set has a version, a number that this store has not
// given out before: it grows while the set exists, and 0 stands for no set.
//
// A store and its cursors may be used by one thread at a time. Other threads and processes open the file on their own.
// A forked child must not use its parent's store.
#pragma once

#include "qor/system/AttributeSet.h"

#include <optional>

// The largest key, and the largest set in its stream form, in bytes.
inline constexpr uint32 qorMaxStoreKey = 4096;
inline constexpr uint32 qorMaxStoreValue = 256u << 20; // of the stream form

// In place of a version: whichever the set has.
inline constexpr uint64 qorAnyVersion = 0xffffffffffffffff;

class IQORObjectStore;

// The purpose for which a store is opened.
enum class qorStoreMode : uint32 {
    create,    // reading and writing; a missing store is created
    open,      // reading and writing
    read_only, // reading
    damaged,   // Check and Rescue: the file may have any content, and is only read
};

// How a store is opened.
struct qorObjectStoreOptions {
    // What for.
    qorStoreMode mode = qorStoreMode::create;
    // Whether each commit waits until the disk has the changes. If false, what was confirmed last may be missing after
    // the power fails; the end of the process loses nothing.
    bool synced = true;
    // How many milliseconds an operation waits for other processes; 0 for no limit.
    uint32 wait = 10000;
    // The version of the program's own schema, by which it knows how it has arranged its keys and sets; a new store
    // gets it. 0: the program has no schema, and opens a store of any.
    uint32 schema = 0;
    // Brings a store from schema `from` to `from + 1`; called for each step that is missing, with all steps in one
    // transaction. It may do everything with the store but end that transaction. A step that returns false undoes them
    // all, and its last error becomes the reason. Null: an older store is refused.
    bool (*migrate)(IQORObjectStore* store, uint32 from, void* context) noexcept = nullptr;
    void* context = nullptr; // handed to `migrate`
};

// Which keys a walk visits; the default is all of them. The views must be valid during the call alone.
struct qorStoreRange {
    qorTextView prefix{};  // keys that begin with it
    qorTextView from{};    // keys at or behind it
    qorTextView below{};   // keys before it; empty for no limit
    bool backward = false; // begins with the last key
};

// The purpose of a transaction.
enum class qorStoreAccess : uint32 {
    read,  // all reads see one state of the store; never waits for writers
    write, // other writers wait
};

// What Rescue has found.
struct qorStoreRescue {
    uint64 sets = 0;    // saved
    uint64 lost = 0;    // sets that were found, but not whole
    uint64 pages = 0;   // parts of the file, of 4096 bytes
    uint64 damaged = 0; // those of them in which something was damaged
};

// A walk over keys in their order. It asks for what is behind the last key that it has shown, so the store may change
// meanwhile: a set that this object's store changes is shown in its new state, a set that others change in either.
// Inside a transaction a walk sees the state of that transaction.
class IQORObjectStoreCursor : public IQORInterface {
public:
    // Goes to the next set. Returns false at the end, and on failure.
    virtual bool Next() noexcept = 0;
    // Whether Next has failed; the last error was set then.
    virtual bool HasFailed() noexcept = 0;

    // The set at which the walk stands. The key is valid until the next Next.
    virtual qorTextView GetKey() noexcept = 0;
    virtual uint64 GetVersion() noexcept = 0;
    [[nodiscard]] virtual bool GetValue(IQORAttributeSet* out) noexcept = 0;

protected:
    ~IQORObjectStoreCursor() = default;
};

// A set at which a walk stands.
class qorStoreEntry {
public:
    qorTextView key;    // valid until the walk goes on
    uint64 version = 0; // of the set

    // The set itself, or nothing if it is damaged (last error).
    std::optional<qorAttributeSet> Value() const {
        qorAttributeSet value;
        return m_cursor->GetValue(value) ? std::optional(std::move(value)) : std::nullopt;
    }

private:
    friend class qorStoreWalk;
    IQORObjectStoreCursor* m_cursor = nullptr;
};

// A walk for range-for. A walk that could not begin has no entries.
class qorStoreWalk {
public:
    // Over the sets that a cursor visits; null for a walk that could not begin.
    explicit qorStoreWalk(zetSmartPointer<IQORObjectStoreCursor> cursor) noexcept : m_cursor(std::move(cursor)) {}

    // An iterator that can only go on; all of a walk are the same place.
    class iterator {
    public:
        // Goes to the first set.
        explicit iterator(IQORObjectStoreCursor* cursor) noexcept { m_entry.m_cursor = cursor, ++*this; }
        // The set at which the walk stands.
        const qorStoreEntry& operator*() const noexcept { return m_entry; }
        const qorStoreEntry* operator->() const noexcept { return &m_entry; } // the same
        // Goes to the next set.
        iterator& operator++() noexcept {
            if (m_entry.m_cursor != nullptr && m_entry.m_cursor->Next()) {
                m_entry.key = m_entry.m_cursor->GetKey();
                m_entry.version = m_entry.m_cursor->GetVersion();
            } else {
                m_entry.m_cursor = nullptr;
            }
            return *this;
        }
        // Whether there is no further one.
        bool operator==(std::default_sentinel_t) const noexcept { return m_entry.m_cursor == nullptr; }

    private:
        qorStoreEntry m_entry;
    };

    // A loop goes on where an earlier one over the same walk has stopped.
    iterator begin() const noexcept { return iterator(m_cursor.IsEmpty() ? nullptr : *m_cursor); }
    std::default_sentinel_t end() const noexcept { return {}; }

    // Whether the loop has ended early, because the store could not be read (last error).
    bool HasFailed() const noexcept { return m_cursor.IsEmpty() || m_cursor->HasFailed(); }

private:
    zetSmartPointer<IQORObjectStoreCursor> m_cursor;
};

// An open store. Operations return false on failure; a set that is absent is no failure.
class IQORObjectStore : public IQORInterface {
public:
    // The path of the file, and the version of its schema.
    virtual void GetPath(qorString& out) noexcept = 0;
    virtual uint32 GetSchema() noexcept = 0;

    // Gets a set and its version; without such a set, `out` is empty and `version` 0. GetVersion gets the version only.
    [[nodiscard]] virtual bool Get(qorTextView key, IQORAttributeSet* out, uint64& version) noexcept = 0;
    [[nodiscard]] virtual bool GetVersion(qorTextView key, uint64& version) noexcept = 0;

    // Stores a set, whose version becomes `version`. If the present version is not the expected one (0: there is no
    // set; qorAnyVersion: whichever it is), nothing changes and the error is qorError_store_conflict.
    [[nodiscard]] virtual bool Put(qorTextView key, IQORAttributeSet* value, uint64 expected,
                                   uint64& version) noexcept = 0;
    // Removes a set in the same way. `existed` says whether there was one.
    [[nodiscard]] virtual bool Remove(qorTextView key, uint64 expected, bool& existed) noexcept = 0;

    // Removes all sets of a range, and counts them; this takes time in proportion to their number.
    [[nodiscard]] virtual bool RemoveRange(const qorStoreRange& range, uint64& count) noexcept = 0;
    [[nodiscard]] virtual bool CountRange(const qorStoreRange& range, uint64& count) noexcept = 0;

    // Begins a walk; qorStoreWalk below is the convenient way.
    [[nodiscard]] virtual bool Walk(const qorStoreRange& range, IQORObjectStoreCursor** out) noexcept = 0;

    // Begins a transaction. One inside another ends with it: what it has changed can be undone alone, and is stored
    // when the outermost one commits. A transaction that writes cannot begin in one that reads. An operation outside
    // all transactions is one of its own.
    [[nodiscard]] virtual bool Begin(qorStoreAccess access) noexcept = 0;
    // Ends the innermost transaction. If Commit fails, the transaction has ended, too, without a change of the store.
    [[nodiscard]] virtual bool Commit() noexcept = 0;
    virtual bool Rollback() noexcept = 0;

    // Reads the whole file and looks for damage. Returns true if it finds no damage; otherwise `findings` says in words
    // what was found, and the last error is the first of it. SQLite's findings are in English.
    [[nodiscard]] virtual bool Check(qorStringArray& findings) noexcept = 0;
    // Saves what can be read in a damaged file into a new store, which must not exist. The file itself is only read; no
    // process may write to it meanwhile. Where the damage hides which state of a set is the newest, it takes the
    // highest version; a set that was removed lately may come back.
    [[nodiscard]] virtual bool Rescue(const char* path, qorStoreRescue& out) noexcept = 0;
    // Writes the present state into a new file, which must not exist, while others go on working: for a backup.
    [[nodiscard]] virtual bool CopyTo(const char* path) noexcept = 0;

    // The set of a key, or nothing if the store does not contain it, and on failure (last error).
    std::optional<qorAttributeSet> Find(qorTextView key) {
        qorAttributeSet value;
        uint64 version = 0;
        return Get(key, value, version) && version != 0 ? std::optional(std::move(value)) : std::nullopt;
    }
    // Stores and removes a set, whatever was there before.
    [[nodiscard]] bool Put(qorTextView key, IQORAttributeSet* value) noexcept {
        uint64 version = 0;
        return Put(key, value, qorAnyVersion, version);
    }
    [[nodiscard]] bool Remove(qorTextView key) noexcept {
        bool existed = false;
        return Remove(key, qorAnyVersion, existed);
    }
    // Stores a set if its version is still `version`, which becomes the new one.
    [[nodiscard]] bool PutIf(qorTextView key, IQORAttributeSet* value, uint64& version) noexcept {
        return Put(key, value, version, version);
    }
    // The sets of a range, for range-for: `for (const auto& each : store->Sets({.prefix = "user/"}))`.
    qorStoreWalk Sets(const qorStoreRange& range = {}) noexcept {
        zetSmartPointer<IQORObjectStoreCursor> cursor;
        if (!Walk(range, cursor.Out()))
            cursor.Empty();
        return qorStoreWalk(std::move(cursor));
    }

protected:
    ~IQORObjectStore() = default;
};

// A transaction that ends with its scope: undone, unless Commit was called.
class qorStoreTransaction {
public:
    // Begins it.
    explicit qorStoreTransaction(IQORObjectStore* store, qorStoreAccess access = qorStoreAccess::write) noexcept
        : m_store(store->Begin(access) ? store : nullptr) {}
    qorStoreTransaction(const qorStoreTransaction&) = delete;
    qorStoreTransaction& operator=(const qorStoreTransaction&) = delete;
    ~qorStoreTransaction() {
        if (m_store != nullptr)
            m_store->Rollback();
    }

    // Whether it has begun and not ended. If it could not begin, the last error says why.
    explicit operator bool() const noexcept { return m_store != nullptr; }
    [[nodiscard]] bool Commit() noexcept {
        IQORObjectStore* const store = std::exchange(m_store, nullptr);
        return store != nullptr && store->Commit();
    }

private:
    IQORObjectStore* m_store;
};

// Opens a store. Returns false and leaves *out unchanged if it is missing, cannot be read, is no object store, is
// damaged at first sight, or has a newer schema. The time does not depend on how many sets are in it.
[[nodiscard]] inline bool qorOpenObjectStore(const char* path, const qorObjectStoreOptions& options,
                                             IQORObjectStore** out) noexcept {
    return qor::glue::qorOpenObjectStore(path, options, out);
}
[[nodiscard]] inline bool qorOpenObjectStore(const char* path, IQORObjectStore** out) noexcept {
    return qor::glue::qorOpenObjectStore(path, {}, out);
}
