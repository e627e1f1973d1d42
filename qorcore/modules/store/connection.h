// Inside the module qor-store: a connection to a file of SQLite, with prepared statements that are kept, errors in the
// framework's form, and a limit on waiting for other processes.
#pragma once

#include "name_in_sqlite.h"
#include "qor/qor.h"

#include <array>
#include <memory>
#include <sqlite3.h>
#include <string>
#include <string_view>

namespace store {

inline constexpr char catalog[] = "qorcore";

// The statements that are prepared once and kept.
enum class command {
    begin_read,
    begin_write,
    commit,
    rollback,
    nest,
    join,
    undo,
    reserve,
    get,
    get_version,
    put,
    insert,
    update,
    remove,
    remove_version,
    // With and without a key at which a range ends. The order is that of `in_range`.
    walk,
    walk_limited,
    walk_back,
    walk_back_limited,
    count_all,
    count_limited,
    remove_all,
    remove_limited,
    number_of_commands,
};

// The same command for a range with a limit.
constexpr command limited(command plain, bool is_limited) noexcept {
    return static_cast<command>(static_cast<int>(plain) + (is_limited ? 1 : 0));
}

// Preserves the last error while a failure is cleaned up. Without memory for that, a later error may take its place.
class kept_error {
public:
    kept_error() noexcept { qor::glue::qorGetLastError_message(m_error.Out()); }
    kept_error(const kept_error&) = delete;
    kept_error& operator=(const kept_error&) = delete;
    ~kept_error() {
        if (!m_error.IsEmpty())
            qor::glue::qorSetLastErrorMessage(*m_error);
    }

private:
    zetSmartPointer<IQORErrorMessage> m_error;
};

class connection;

// A statement in use. Its end resets the statement, which ends a transaction of its own.
class query {
public:
    query(connection& on, command which) noexcept;
    query(connection& on, const char* sql) noexcept; // for rare ones, which are not kept
    query(const query&) = delete;
    query& operator=(const query&) = delete;
    ~query() { finish(); }

    // The bytes must stay valid until the query ends.
    query& bind(int index, std::string_view bytes) noexcept;
    query& bind(int index, uint64 number) noexcept;

    // Goes to the next row. Returns false at the end, and on failure.
    bool next() noexcept;
    // For a statement without rows, and for the rest of one: returns false and sets the last error on failure.
    bool run() noexcept;
    // Whether a step has failed; sets the last error then.
    bool has_failed() noexcept;

    // Columns of the row, valid until the next step.
    uint64 number(int column) noexcept;
    std::string_view bytes(int column) noexcept;

private:
    void finish() noexcept;

    connection& m_on;
    sqlite3_stmt* m_statement = nullptr;
    bool m_is_kept = false;
    int m_result = SQLITE_OK; // of the last step
};

class connection {
public:
    connection() noexcept = default;
    connection(const connection&) = delete;
    connection& operator=(const connection&) = delete;
    ~connection();

    // Opens a file, with the flags of SQLite. Returns false and sets the last error on failure, like all that follows.
    bool open(const char* path, int flags, uint32 wait);
    // Makes the settings that may need to read the file; those that protect against what is in it were made before.
    bool protect() noexcept;

    // Runs statements without results.
    bool run(const char* sql) noexcept;
    bool run(command which) noexcept { return query(*this, which).run(); }
    // Gets the number that a statement returns.
    bool get(const char* sql, uint64& out) noexcept;

    // The number of rows that the last change has affected.
    uint64 changes() noexcept { return static_cast<uint64>(sqlite3_changes64(m_database)); }
    // Whether SQLite is in a transaction.
    bool is_in_transaction() noexcept { return sqlite3_get_autocommit(m_database) == 0; }

    // Sets the last error for a result of SQLite, and returns false.
    bool fail(int result) noexcept;
    // Sets the last error `number` with the path and a reason, and returns false.
    bool fail(uint32 number, const char* reason) noexcept;
    bool fail_with_message(uint32 number, uint32 reason) noexcept;

    const std::string& path() const noexcept { return m_path; }
    sqlite3* database() noexcept { return m_database; }

private:
    friend class query;
    static int wait(void* self, int count) noexcept;

    sqlite3* m_database = nullptr;
    std::array<sqlite3_stmt*, static_cast<std::size_t>(command::number_of_commands)> m_statements{};
    std::string m_path;
    uint32 m_wait = 0;       // milliseconds, or 0 for no limit
    uint64 m_wait_begin = 0; // of the operation that waits
};

// Whether a result means that another process was in the way.
constexpr bool is_busy(int result) noexcept {
    return (result & 0xff) == SQLITE_BUSY || (result & 0xff) == SQLITE_LOCKED;
}

} // namespace store
