#include "format.h"

#include "message_names.h"

namespace {

namespace message = qor::messages::framework;

// SQLite keeps these texts in the file. A file with other ones was not made here.
constexpr std::string_view table_meta =
    "CREATE TABLE meta (name TEXT PRIMARY KEY NOT NULL, value INTEGER NOT NULL) STRICT, WITHOUT ROWID";
constexpr std::string_view table_sets = "CREATE TABLE sets (key BLOB PRIMARY KEY NOT NULL, version INTEGER NOT NULL, "
                                        "value BLOB NOT NULL) STRICT, WITHOUT ROWID";

// Creates the tables, unless another process has done so a moment ago.
bool create(store::connection& file, uint32 schema) {
    if (!file.run("PRAGMA page_size = 4096") || !file.run("BEGIN IMMEDIATE"))
        return false;
    uint64 tables = 0;
    if (!file.get("SELECT count(*) FROM sqlite_schema", tables))
        return false;
    if (tables == 0) {
        std::string sql(table_meta);
        sql += ";";
        sql += table_sets;
        sql += "; INSERT INTO meta VALUES ('next_version', 1), ('schema', " + std::to_string(schema) +
               "); PRAGMA application_id = " + std::to_string(store::application_id) +
               "; PRAGMA user_version = " + std::to_string(store::format_version);
        if (!file.run(sql.c_str()))
            return false;
    }
    return file.run("COMMIT");
}

// Makes the file keep its changes in a log beside it. SQLite does not wait for others there.
bool use_log(store::connection& file, uint32 wait) {
    const uint64 begin = qorGetTickCounter();
    for (;;) {
        int result = SQLITE_OK;
        {
            sqlite3_stmt* statement = nullptr;
            result = sqlite3_prepare_v2(file.database(), "PRAGMA journal_mode = WAL", -1, &statement, nullptr);
            if (result == SQLITE_OK)
                result = sqlite3_step(statement);
            const auto* const mode =
                reinterpret_cast<const char*>(result == SQLITE_ROW ? sqlite3_column_text(statement, 0) : nullptr);
            const bool is_used = mode != nullptr && std::string_view(mode) == "wal";
            sqlite3_finalize(statement);
            if (is_used)
                return true;
        }
        if (result == SQLITE_ROW)
            return file.fail_with_message(qorError_store_failed, message::store_no_shared_memory);
        if (!store::is_busy(result) ||
            (wait != 0 && (qorGetTickCounter() - begin) / (qorTicksPerSecond / 1000) >= wait))
            return file.fail(result);
        qorSleep(1);
    }
}

// Whether there is something that is no file on a disk.
bool is_strange(const char* path) {
    const store::kept_error before; // that there is nothing is no error
    qorFileInfo info;
    return qorGetFileInfo(path, info) && info.kind != qorFileKind::file;
}

} // namespace

namespace store {

bool verify_format(connection& file) noexcept {
    uint64 id = 0, format = 0, size = 0;
    if (!file.get("PRAGMA application_id", id) || !file.get("PRAGMA user_version", format) ||
        !file.get("PRAGMA page_size", size))
        return false;
    if (id != application_id)
        return file.fail_with_message(qorError_store_not_ours, message::store_of_another);
    if (format > format_version)
        return file.fail_with_message(qorError_store_not_ours, message::store_other_format);
    query tables(file, "SELECT sql FROM sqlite_schema ORDER BY name");
    bool is_equal = size == page_size && tables.next() && tables.bytes(0) == table_meta && tables.next() &&
                    tables.bytes(0) == table_sets;
    is_equal = is_equal && !tables.next();
    if (tables.has_failed())
        return false;
    return is_equal || file.fail_with_message(qorError_store_not_ours, message::store_other_tables);
}

bool get_meta(connection& file, const char* name, uint64& value) noexcept {
    query asked(file, "SELECT value FROM meta WHERE name = CAST(?1 AS TEXT)");
    if (asked.bind(1, std::string_view(name)).next()) {
        value = asked.number(0);
        return true;
    }
    return !asked.has_failed() && file.fail_with_message(qorError_store_not_ours, message::store_other_tables);
}

bool set_meta(connection& file, const char* name, uint64 value) noexcept {
    query set(file, "UPDATE meta SET value = ?2 WHERE name = CAST(?1 AS TEXT)");
    return set.bind(1, std::string_view(name)).bind(2, value).run();
}

bool open_file(connection& file, const char* path, const qorObjectStoreOptions& options) {
    // A pipe would wait, and a device may be anything.
    if (is_strange(path)) {
        qorSetLastError(qorError_no_disk_file, path);
        return false;
    }
    const bool writes = options.mode == qorStoreMode::create || options.mode == qorStoreMode::open;
    const int flags = options.mode == qorStoreMode::create ? SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE
                      : writes                             ? SQLITE_OPEN_READWRITE
                                                           : SQLITE_OPEN_READONLY;
    if (!file.open(path, flags, options.wait))
        return false;
    if (options.mode == qorStoreMode::damaged) {
        sqlite3_db_config(file.database(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
        return true;
    }
    // What turns out to be another's file stays as it is.
    sqlite3_db_config(file.database(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
    if (writes && sqlite3_db_readonly(file.database(), nullptr) == 1)
        return file.fail(SQLITE_READONLY);
    uint64 pages = 0;
    if (!file.protect() || !file.get("PRAGMA page_count", pages))
        return false;
    if (pages == 0 && options.mode == qorStoreMode::create && !create(file, options.schema))
        return false;
    if (!verify_format(file))
        return false;
    sqlite3_db_config(file.database(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 0, nullptr);
    return !writes || (use_log(file, options.wait) &&
                       file.run(options.synced ? "PRAGMA synchronous = FULL" : "PRAGMA synchronous = NORMAL"));
}

} // namespace store
