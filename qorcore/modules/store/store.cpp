#include "store.h"

#include "common/guarded.h"
#include "format.h"
#include "message_names.h"
#include "set_form.h"

#include <algorithm>
#include <limits>

namespace message = qor::messages::framework;

namespace {

constexpr uint64 reserved_at_once = 1024; // versions
constexpr uint64 highest_version = std::numeric_limits<int64>::max();

std::string_view view(qorTextView key) noexcept { return key; }

} // namespace

namespace store {

bounds::bounds(const qorStoreRange& range) : lower(std::max(view(range.from), view(range.prefix))) {
    // The first key behind all that have the prefix.
    upper = view(range.prefix);
    while (!upper.empty() && upper.back() == '\xff')
        upper.pop_back();
    if (!upper.empty()) {
        upper.back() = static_cast<char>(upper.back() + 1);
        is_limited = true;
    }
    if (range.below.length != 0 && (!is_limited || view(range.below) < upper)) {
        upper = view(range.below);
        is_limited = true;
    }
}

object_store::object_store(qorStoreMode mode) noexcept : object("qor-store.store", "IQORObjectStore"), m_mode(mode) {}

// ---- opening

bool object_store::load(const char* path, const qorObjectStoreOptions& options) {
    if (!open_file(m_file, path, options))
        return false;
    if (m_mode == qorStoreMode::damaged)
        return true;
    uint64 schema = 0;
    if (!get_meta(m_file, "schema", schema))
        return false;
    m_schema = static_cast<uint32>(schema);
    return options.schema == 0 || options.schema == m_schema || migrate(options);
}

bool object_store::migrate(const qorObjectStoreOptions& options) {
    const std::string wanted = std::to_string(options.schema);
    const bool may_migrate = options.migrate != nullptr && m_mode != qorStoreMode::read_only;
    if (m_schema < options.schema && may_migrate && !Begin(qorStoreAccess::write))
        return false;
    uint64 found = m_schema; // another process may have migrated it meanwhile
    if (m_depth != 0 && !get_meta(m_file, "schema", found))
        return false;
    if (found >= options.schema && m_depth != 0)
        Rollback();
    m_schema = static_cast<uint32>(found);
    if (found == options.schema)
        return true;
    const std::string has = std::to_string(found);
    if (found > options.schema || !may_migrate) {
        qorSetLastError(found > options.schema ? qorError_store_newer : qorError_store_older, m_file.path().c_str(),
                        has.c_str(), wanted.c_str());
        return false;
    }
    m_floor = 1;
    bool is_done = true;
    for (; is_done && found < options.schema; ++found) {
        qorClearLastError();
        is_done = options.migrate(this, static_cast<uint32>(found), options.context);
        while (m_depth > m_floor) // a step that returns in the middle of a transaction
            Rollback(), is_done = false;
    }
    m_floor = 0;
    if (is_done && set_meta(m_file, "schema", options.schema) && Commit()) {
        m_schema = options.schema;
        return true;
    }
    qorString reason;
    qorGetLastError(reason);
    if (m_depth != 0)
        Rollback();
    qorSetLastError(qorError_store_not_migrated, m_file.path().c_str(), has.c_str(), wanted.c_str(), reason);
    return false;
}

// ---- transactions

bool object_store::fail_transaction(const char* operation, uint32 reason) noexcept {
    qorString text;
    text.LoadString(catalog, reason);
    qorSetLastError(qorError_store_transaction, operation, m_file.path().c_str(), text);
    return false;
}

bool object_store::may_read(const char* operation) noexcept {
    return !m_is_over || fail_transaction(operation, message::store_transaction_over);
}

bool object_store::may_write(const char* operation) noexcept {
    if (m_mode == qorStoreMode::read_only || m_mode == qorStoreMode::damaged)
        return m_file.fail(SQLITE_READONLY);
    if (m_reading_from != 0)
        return fail_transaction(operation, message::store_only_reads);
    return may_read(operation);
}

bool object_store::failed() noexcept {
    if (m_depth != 0 && !m_file.is_in_transaction())
        m_is_over = true;
    ++m_changes;
    return false;
}

bool object_store::Begin(qorStoreAccess access) noexcept {
    const bool writes = access == qorStoreAccess::write;
    if (!(writes ? may_write("Begin") : may_read("Begin")))
        return false;
    if (m_depth != 0) {
        if (!m_file.run(command::nest))
            return failed();
    } else if (!m_file.run(writes ? command::begin_write : command::begin_read)) {
        return false;
    } else if (!writes && !query(m_file, command::get_version).bind(1, std::string_view()).run()) {
        // SQLite fixes the state that a transaction sees when it first reads.
        m_file.run(command::rollback);
        return false;
    }
    ++m_depth;
    if (!writes && m_reading_from == 0)
        m_reading_from = m_depth;
    return true;
}

// Ends the innermost transaction in the books.
bool object_store::leave(bool result) noexcept {
    if (--m_depth < m_reading_from)
        m_reading_from = 0;
    if (m_depth == 0)
        m_is_over = false;
    return result;
}

bool object_store::Commit() noexcept {
    if (m_depth <= m_floor)
        return fail_transaction("Commit", message::store_no_transaction);
    if (m_is_over)
        return leave(fail_transaction("Commit", message::store_transaction_over));
    if (m_depth > 1)
        return leave(m_file.run(command::join) || failed());
    const bool is_done = m_file.run(command::commit);
    if (!is_done) {
        const kept_error error;
        if (m_file.is_in_transaction())
            m_file.run(command::rollback);
        keep_versions();
        ++m_changes;
    }
    m_reserved_inside = false;
    return leave(is_done);
}

bool object_store::Rollback() noexcept {
    if (m_depth <= m_floor)
        return fail_transaction("Rollback", message::store_no_transaction);
    bool is_done = true;
    if (!m_is_over && m_depth > 1)
        is_done = (m_file.run(command::undo) && m_file.run(command::join)) || failed();
    else if (m_file.is_in_transaction())
        is_done = m_file.run(command::rollback);
    ++m_changes;
    leave(true);
    if (!m_is_over)
        keep_versions();
    return is_done;
}

// ---- versions

// Gets a version that is above another one and was never given out. Each process reserves many at once, so that a
// change seldom has to count.
bool object_store::next_version(uint64 above, uint64& version) noexcept {
    if (m_next == m_end || m_next <= above) {
        query reserve(m_file, command::reserve);
        reserve.bind(1, reserved_at_once).bind(2, m_end);
        if (!reserve.next())
            return !reserve.has_failed() &&
                   m_file.fail_with_message(qorError_store_not_ours, message::store_other_tables);
        const uint64 end = reserve.number(0);
        if (!reserve.run())
            return false;
        m_end = end;
        m_next = end - reserved_at_once;
        m_reserved_inside = m_depth != 0;
    }
    version = m_next++;
    return true;
}

// After a transaction was undone: what it has reserved may have been given out, so it stays reserved. If that fails,
// the next change begins with a reservation behind it.
void object_store::keep_versions() noexcept {
    if (!m_reserved_inside)
        return;
    const kept_error error;
    if (!query(m_file, command::reserve).bind(1, uint64{0}).bind(2, m_end).run())
        m_next = m_end;
    m_reserved_inside = m_depth != 0;
}

// ---- sets

bool object_store::fail_unreadable(std::string_view key) noexcept {
    qorString reason, text;
    if (qorGetLastError(reason) == qorError_out_of_memory)
        return false;
    text.Format(catalog, message::store_unreadable_set, qorString(key), reason);
    return m_file.fail(qorError_store_damaged, text);
}

bool object_store::fail_odd_version(std::string_view key) noexcept {
    qorString text;
    text.Format(catalog, message::store_odd_version, qorString(key));
    return m_file.fail(qorError_store_damaged, text);
}

bool object_store::fail_conflict(std::string_view key) noexcept {
    return m_file.fail(qorError_store_conflict, qorString(key));
}

bool object_store::check_size(qorTextView key) noexcept {
    if (key.length <= qorMaxStoreKey && m_bytes.size() <= qorMaxStoreValue)
        return true;
    qorString key_limit, value_limit;
    key_limit.FormatUnsigned(qorMaxStoreKey, 10);
    value_limit.FormatUnsigned(qorMaxStoreValue >> 20, 10);
    qorSetLastError(qorError_store_too_large, m_file.path().c_str(), key_limit, value_limit);
    return false;
}

bool object_store::Get(qorTextView key, IQORAttributeSet* out, uint64& version) noexcept {
    if (!may_read("Get"))
        return false;
    query get(m_file, command::get);
    if (!get.bind(1, view(key)).next()) {
        if (get.has_failed())
            return failed();
        out->Empty();
        version = 0;
        return true;
    }
    const uint64 found = get.number(0);
    if (found == 0 || found > highest_version)
        return fail_odd_version(key);
    if (!read_set(get.bytes(1), out))
        return fail_unreadable(key);
    version = found;
    return true;
}

bool object_store::GetVersion(qorTextView key, uint64& version) noexcept {
    if (!may_read("GetVersion"))
        return false;
    query get(m_file, command::get_version);
    const uint64 found = get.bind(1, view(key)).next() ? get.number(0) : 0;
    if (get.has_failed())
        return failed();
    if (found > highest_version)
        return fail_odd_version(key);
    version = found;
    return true;
}

bool object_store::put_any(std::string_view key, uint64& version) noexcept {
    for (const bool again : {false, true}) {
        uint64 made = 0;
        if (!next_version(again ? m_end : 0, made))
            return failed();
        if (!query(m_file, command::put).bind(1, key).bind(2, made).bind(3, m_bytes).run())
            return failed();
        if (m_file.changes() != 0) {
            version = made;
            return true;
        }
        // Another process has given it a version that was reserved later than those here.
    }
    return fail_odd_version(key);
}

bool object_store::put_expected(std::string_view key, uint64 expected, uint64& version) noexcept {
    uint64 made = 0;
    if (!next_version(expected, made))
        return failed();
    query change(m_file, expected == 0 ? command::insert : command::update);
    change.bind(1, key).bind(2, made).bind(3, m_bytes);
    if (expected != 0)
        change.bind(4, expected);
    if (!change.run())
        return failed();
    if (m_file.changes() == 0)
        return fail_conflict(key);
    version = made;
    return true;
}

bool object_store::Put(qorTextView key, IQORAttributeSet* value, uint64 expected, uint64& version) noexcept {
    if (!may_write("Put"))
        return false;
    m_bytes.clear();
    text_sink sink(m_bytes);
    if (!value->Write(&sink) || !check_size(key))
        return false;
    if (!(expected == qorAnyVersion ? put_any(key, version) : put_expected(key, expected, version)))
        return false;
    ++m_changes;
    return true;
}

bool object_store::Remove(qorTextView key, uint64 expected, bool& existed) noexcept {
    if (!may_write("Remove"))
        return false;
    if (expected == 0) {
        uint64 version = 0;
        if (!GetVersion(key, version))
            return false;
        existed = false;
        return version == 0 || fail_conflict(key);
    }
    query change(m_file, expected == qorAnyVersion ? command::remove : command::remove_version);
    change.bind(1, view(key));
    if (expected != qorAnyVersion)
        change.bind(4, expected);
    if (!change.run())
        return failed();
    const bool was_there = m_file.changes() != 0;
    if (!was_there && expected != qorAnyVersion)
        return fail_conflict(key);
    existed = was_there;
    ++m_changes;
    return true;
}

// ---- ranges

bool object_store::RemoveRange(const qorStoreRange& range, uint64& count) noexcept {
    if (!may_write("RemoveRange"))
        return false;
    return qor::modules::guarded([&] {
        const bounds keys(range);
        query change(m_file, limited(command::remove_all, keys.is_limited));
        change.bind(1, keys.lower);
        if (keys.is_limited)
            change.bind(2, keys.upper);
        if (!change.run())
            return failed();
        count = m_file.changes();
        ++m_changes;
        return true;
    });
}

bool object_store::CountRange(const qorStoreRange& range, uint64& count) noexcept {
    if (!may_read("CountRange"))
        return false;
    return qor::modules::guarded([&] {
        const bounds keys(range);
        query counted(m_file, limited(command::count_all, keys.is_limited));
        counted.bind(1, keys.lower);
        if (keys.is_limited)
            counted.bind(2, keys.upper);
        const uint64 found = counted.next() ? counted.number(0) : 0;
        if (counted.has_failed())
            return failed();
        count = found;
        return true;
    });
}

bool object_store::Walk(const qorStoreRange& range, IQORObjectStoreCursor** out) noexcept {
    return may_read("Walk") && make_cursor(*this, range, out);
}

// ---- the whole file

bool object_store::Check(qorStringArray& findings) noexcept {
    return may_read("Check") && qor::modules::guarded([&] { return check(*this, findings); });
}

bool object_store::Rescue(const char* path, qorStoreRescue& out) noexcept {
    return qor::modules::guarded([&] {
        if (qorFileExists(path)) {
            qorSetLastError(qorError_store_exists, path);
            return false;
        }
        zetSmartPointer<object_store> made;
        made.AttachNew(new (__FILE__, __LINE__) object_store(qorStoreMode::create));
        if (made->load(path, {}) && made->Begin(qorStoreAccess::write) && rescue(m_file.path(), **made, out) &&
            made->Commit())
            return true;
        const kept_error error;
        made.Empty();
        qorDeleteFile(path);
        return false;
    });
}

bool object_store::CopyTo(const char* path) noexcept {
    return may_read("CopyTo") && qor::modules::guarded([&] {
               if (qorFileExists(path)) {
                   qorSetLastError(qorError_store_exists, path);
                   return false;
               }
               const std::string name = name_in_sqlite(path);
               if (query(m_file, "VACUUM INTO CAST(?1 AS TEXT)").bind(1, name).run())
                   return true;
               const kept_error error;
               qorDeleteFile(path);
               return false;
           });
}

bool open(const char* path, const qorObjectStoreOptions& options, IQORObjectStore** out) noexcept {
    return qor::modules::guarded([&] {
        zetSmartPointer<object_store> made;
        made.AttachNew(new (__FILE__, __LINE__) object_store(options.mode));
        if (!made->load(path, options))
            return false;
        *out = made.Detach();
        return true;
    });
}

} // namespace store
