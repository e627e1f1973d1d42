// Inside the module qor-store: an open store.
#pragma once

#include "connection.h"
#include "qor/system/template/Object.h"

#include <string>

namespace store {

// Like qorOpenObjectStore.
bool open(const char* path, const qorObjectStoreOptions& options, IQORObjectStore** out) noexcept;

// A range of keys: from `lower` on, and before `upper` if there is a limit.
struct bounds {
    std::string lower;
    std::string upper;
    bool is_limited = false;

    explicit bounds(const qorStoreRange& range);
};

class object_store final : public qor::object<IQORObjectStore> {
public:
    explicit object_store(qorStoreMode mode) noexcept;

    // Opens the file, and brings it to the schema of the options.
    bool load(const char* path, const qorObjectStoreOptions& options);

    void GetPath(qorString& out) noexcept override { out = m_file.path(); }
    uint32 GetSchema() noexcept override { return m_schema; }
    bool Get(qorTextView key, IQORAttributeSet* out, uint64& version) noexcept override;
    bool GetVersion(qorTextView key, uint64& version) noexcept override;
    bool Put(qorTextView key, IQORAttributeSet* value, uint64 expected, uint64& version) noexcept override;
    bool Remove(qorTextView key, uint64 expected, bool& existed) noexcept override;
    bool RemoveRange(const qorStoreRange& range, uint64& count) noexcept override;
    bool CountRange(const qorStoreRange& range, uint64& count) noexcept override;
    bool Walk(const qorStoreRange& range, IQORObjectStoreCursor** out) noexcept override;
    bool Begin(qorStoreAccess access) noexcept override;
    bool Commit() noexcept override;
    bool Rollback() noexcept override;
    bool Check(qorStringArray& findings) noexcept override;
    bool Rescue(const char* path, qorStoreRescue& out) noexcept override;
    bool CopyTo(const char* path) noexcept override;

    connection& file() noexcept { return m_file; }
    // Grows with each change that is made through this object.
    uint64 changes() const noexcept { return m_changes; }

    // Whether operations are possible, which they are not in a transaction that an error has ended. Returns false and
    // sets the last error, like the others.
    bool may_read(const char* operation) noexcept;
    bool may_write(const char* operation) noexcept;
    // To be called when an operation has failed: SQLite may have ended the transaction. Returns false.
    bool failed() noexcept;
    // Sets the last error for a set that cannot be used, and returns false.
    bool fail_unreadable(std::string_view key) noexcept;
    bool fail_odd_version(std::string_view key) noexcept;

private:
    bool migrate(const qorObjectStoreOptions& options);
    bool fail_transaction(const char* operation, uint32 reason) noexcept;
    bool fail_conflict(std::string_view key) noexcept;
    bool leave(bool result) noexcept;
    bool next_version(uint64 above, uint64& version) noexcept;
    void keep_versions() noexcept;
    bool check_size(qorTextView key) noexcept;
    bool put_any(std::string_view key, uint64& version) noexcept;
    bool put_expected(std::string_view key, uint64 expected, uint64& version) noexcept;

    connection m_file;
    const qorStoreMode m_mode;
    uint32 m_schema = 0;
    uint64 m_changes = 0;
    std::string m_bytes; // the stream form of the set that is stored

    // Transactions: how many lie in one another; from which one on they only read, or 0; how many of them belong to a
    // migration; whether an error has ended them all.
    uint32 m_depth = 0;
    uint32 m_reading_from = 0;
    uint32 m_floor = 0;
    bool m_is_over = false;

    // The versions that this object has reserved, and whether the transaction that is under way has done that.
    uint64 m_next = 0;
    uint64 m_end = 0;
    bool m_reserved_inside = false;
};

// Implemented in rescue.cpp and check.cpp.
bool rescue(const std::string& from, object_store& to, qorStoreRescue& out);
bool check(object_store& store, qorStringArray& findings);

// Creates a walk over a store.
bool make_cursor(object_store& store, const qorStoreRange& range, IQORObjectStoreCursor** out) noexcept;

} // namespace store
