#include "connection.h"

#include "common/system_reason.h"
#include "message_names.h"

#include <algorithm>

namespace {

namespace message = qor::messages::framework;

constexpr const char* texts[] = {
    "BEGIN",
    "BEGIN IMMEDIATE",
    "COMMIT",
    "ROLLBACK",
    "SAVEPOINT inner",
    "RELEASE inner",
    "ROLLBACK TO inner",
    "UPDATE meta SET value = max(value, ?2) + ?1 WHERE name = 'next_version' RETURNING value",
    "SELECT version, value FROM sets WHERE key = ?1",
    "SELECT version FROM sets WHERE key = ?1",
    ("INSERT INTO sets (key, version, value) VALUES (?1, ?2, ?3) "
     "ON CONFLICT (key) DO UPDATE SET version = ?2, value = ?3 WHERE version < ?2"),
    "INSERT INTO sets (key, version, value) VALUES (?1, ?2, ?3) ON CONFLICT (key) DO NOTHING",
    "UPDATE sets SET version = ?2, value = ?3 WHERE key = ?1 AND version = ?4",
    "DELETE FROM sets WHERE key = ?1",
    "DELETE FROM sets WHERE key = ?1 AND version = ?4",
    "SELECT key, version, value FROM sets WHERE key >= ?1 ORDER BY key LIMIT ?3",
    "SELECT key, version, value FROM sets WHERE key >= ?1 AND key < ?2 ORDER BY key LIMIT ?3",
    "SELECT key, version, value FROM sets WHERE key >= ?1 ORDER BY key DESC LIMIT ?3",
    "SELECT key, version, value FROM sets WHERE key >= ?1 AND key < ?2 ORDER BY key DESC LIMIT ?3",
    "SELECT count(*) FROM sets WHERE key >= ?1",
    "SELECT count(*) FROM sets WHERE key >= ?1 AND key < ?2",
    "DELETE FROM sets WHERE key >= ?1",
    "DELETE FROM sets WHERE key >= ?1 AND key < ?2",
};
static_assert(std::size(texts) == static_cast<std::size_t>(store::command::number_of_commands));

// What SQLite may do for a file that anybody may have written.
constexpr struct {
    int limit;
    int most;
} limits[] = {
    {SQLITE_LIMIT_LENGTH, static_cast<int>(qorMaxStoreValue) + 64 * 1024},
    {SQLITE_LIMIT_SQL_LENGTH, 10000},
    {SQLITE_LIMIT_COLUMN, 20},
    {SQLITE_LIMIT_EXPR_DEPTH, 20},
    {SQLITE_LIMIT_COMPOUND_SELECT, 2},
    {SQLITE_LIMIT_VDBE_OP, 25000},
    {SQLITE_LIMIT_FUNCTION_ARG, 8},
    {SQLITE_LIMIT_ATTACHED, 1}, // CopyTo needs one
    {SQLITE_LIMIT_LIKE_PATTERN_LENGTH, 50},
    {SQLITE_LIMIT_VARIABLE_NUMBER, 10},
    {SQLITE_LIMIT_TRIGGER_DEPTH, 1},
    {SQLITE_LIMIT_WORKER_THREADS, 0},
};

constexpr struct {
    int setting;
    int value;
} settings[] = {
    {SQLITE_DBCONFIG_DEFENSIVE, 1},   {SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0},        {SQLITE_DBCONFIG_ENABLE_TRIGGER, 0},
    {SQLITE_DBCONFIG_ENABLE_VIEW, 0}, {SQLITE_DBCONFIG_ENABLE_LOAD_EXTENSION, 0}, {SQLITE_DBCONFIG_DQS_DDL, 0},
    {SQLITE_DBCONFIG_DQS_DML, 0},
};

// ENOENT, and the number of Windows for the same.
constexpr int no_file = 2;

} // namespace

namespace store {

// ---- queries

query::query(connection& on, command which) noexcept : m_on(on), m_is_kept(true) {
    sqlite3_stmt*& kept = on.m_statements[static_cast<std::size_t>(which)];
    if (kept == nullptr)
        m_result = sqlite3_prepare_v3(on.m_database, texts[static_cast<std::size_t>(which)], -1,
                                      SQLITE_PREPARE_PERSISTENT, &kept, nullptr);
    m_statement = kept;
}

query::query(connection& on, const char* sql) noexcept : m_on(on) {
    m_result = sqlite3_prepare_v2(on.m_database, sql, -1, &m_statement, nullptr);
}

query& query::bind(int index, std::string_view bytes) noexcept {
    if (m_statement != nullptr)
        sqlite3_bind_blob64(m_statement, index, bytes.data() != nullptr ? bytes.data() : "", bytes.size(),
                            SQLITE_STATIC);
    return *this;
}

query& query::bind(int index, uint64 number) noexcept {
    if (m_statement != nullptr)
        sqlite3_bind_int64(m_statement, index, static_cast<sqlite3_int64>(number));
    return *this;
}

bool query::next() noexcept {
    if (m_statement == nullptr)
        return false;
    m_result = sqlite3_step(m_statement);
    return m_result == SQLITE_ROW;
}

bool query::has_failed() noexcept {
    if (m_result == SQLITE_OK || m_result == SQLITE_ROW || m_result == SQLITE_DONE)
        return false;
    m_on.fail(m_result);
    return true;
}

bool query::run() noexcept {
    while (next()) {
    }
    return !has_failed();
}

uint64 query::number(int column) noexcept { return static_cast<uint64>(sqlite3_column_int64(m_statement, column)); }

std::string_view query::bytes(int column) noexcept {
    const void* const begin = sqlite3_column_blob(m_statement, column);
    const int size = sqlite3_column_bytes(m_statement, column);
    return begin != nullptr ? std::string_view(static_cast<const char*>(begin), static_cast<std::size_t>(size))
                            : std::string_view();
}

void query::finish() noexcept {
    if (m_is_kept)
        sqlite3_reset(m_statement);
    else
        sqlite3_finalize(m_statement);
}

// ---- connections

connection::~connection() {
    for (sqlite3_stmt* const each : m_statements)
        sqlite3_finalize(each);
    sqlite3_close_v2(m_database);
}

int connection::wait(void* self, int count) noexcept {
    connection& here = *static_cast<connection*>(self);
    const uint64 now = qorGetTickCounter();
    if (count == 0)
        here.m_wait_begin = now;
    const uint64 waited = (now - here.m_wait_begin) / (qorTicksPerSecond / 1000);
    if (here.m_wait != 0 && waited >= here.m_wait)
        return 0;
    const uint64 next = count < 10 ? 1 : 5;
    qorSleep(static_cast<uint32>(here.m_wait != 0 ? std::min<uint64>(next, here.m_wait - waited) : next));
    return 1;
}

bool connection::open(const char* path, int flags, uint32 wait_ms) {
    m_path = path;
    m_wait = wait_ms;
    const int result =
        sqlite3_open_v2(name_in_sqlite(path).c_str(), &m_database,
                        flags | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_PRIVATECACHE | SQLITE_OPEN_EXRESCODE, file_system);
    if (result == SQLITE_CANTOPEN && (flags & SQLITE_OPEN_CREATE) == 0 && sqlite3_system_errno(m_database) == no_file)
        return fail(qorError_store_missing, nullptr);
    if (result != SQLITE_OK)
        return fail(result);
    for (const auto& each : limits)
        sqlite3_limit(m_database, each.limit, each.most);
    for (const auto& each : settings)
        sqlite3_db_config(m_database, each.setting, each.value, nullptr);
    sqlite3_busy_handler(m_database, &wait, this);
    return true;
}

bool connection::protect() noexcept {
    // A new file and the way to its log are made so that no failure of the power brings back an earlier state.
    return run("PRAGMA cell_size_check = ON; PRAGMA mmap_size = 0; PRAGMA secure_delete = FAST; "
               "PRAGMA temp_store = MEMORY; PRAGMA journal_size_limit = 67108864; PRAGMA synchronous = EXTRA");
}

bool connection::run(const char* sql) noexcept {
    const int result = sqlite3_exec(m_database, sql, nullptr, nullptr, nullptr);
    return result == SQLITE_OK || fail(result);
}

bool connection::get(const char* sql, uint64& out) noexcept {
    query asked(*this, sql);
    if (asked.next())
        out = asked.number(0);
    return !asked.has_failed();
}

bool connection::fail(uint32 number, const char* reason) noexcept {
    qorSetLastError(number, m_path.c_str(), reason);
    return false;
}

bool connection::fail_with_message(uint32 number, uint32 reason) noexcept {
    qorString text;
    text.LoadString(catalog, reason);
    return fail(number, text);
}

bool connection::fail(int result) noexcept {
    switch (result & 0xff) {
    case SQLITE_NOMEM:
        qorSetLastError(qorError_out_of_memory);
        return false;
    case SQLITE_BUSY:
    case SQLITE_LOCKED: {
        qorString waited;
        waited.FormatUnsigned(m_wait, 10);
        return fail(qorError_store_busy, waited);
    }
    case SQLITE_FULL:
        return fail(qorError_store_full, nullptr);
    case SQLITE_READONLY:
        return fail(qorError_store_read_only, nullptr);
    case SQLITE_NOTADB:
        return fail_with_message(qorError_store_not_ours, message::store_no_database);
    default:
        break;
    }
    const uint32 number = (result & 0xff) == SQLITE_CORRUPT ? qorError_store_damaged : qorError_store_failed;
    const bool has_text = m_database != nullptr && sqlite3_extended_errcode(m_database) == result;
    qorString text(has_text ? sqlite3_errmsg(m_database) : sqlite3_errstr(result));
    if (const int code = m_database != nullptr ? sqlite3_system_errno(m_database) : 0;
        code != 0 && ((result & 0xff) == SQLITE_IOERR || (result & 0xff) == SQLITE_CANTOPEN)) {
        text.Append(": ");
        text.Append(qor::modules::system_reason(code).c_str());
    }
    return fail(number, text);
}

} // namespace store
