// The search for damage in a store.
#include "format.h"
#include "message_names.h"
#include "set_form.h"
#include "store.h"

#include <limits>

namespace message = qor::messages::framework;

namespace {

constexpr uint32 most_findings = 100;

class findings_list {
public:
    explicit findings_list(qorStringArray& out) noexcept : m_out(out) { m_out.Empty(); }

    void add(const char* text) noexcept {
        if (m_out.GetCount() < most_findings)
            m_out.Append(text);
    }
    void add(uint32 number, std::string_view key, const char* reason = nullptr) noexcept {
        qorString text;
        text.Format(store::catalog, number, qorString(key), reason);
        add(text);
    }
    // What SQLite or the framework has just refused.
    void add_last_error() noexcept {
        qorString text;
        if (qorGetLastErrorInsert(2, text) && !text.IsEmpty())
            return add(text);
        qorGetLastError(text);
        add(text);
    }

private:
    qorStringArray& m_out;
};

// SQLite's own check: pages, keys and their order.
bool check_pages(store::connection& file, findings_list& findings) {
    store::query check(file, "PRAGMA integrity_check(100)");
    while (check.next())
        if (const std::string_view text = check.bytes(0); text != "ok")
            findings.add(qorString(text));
    return !check.has_failed();
}

// The sets and their versions.
bool check_sets(store::connection& file, findings_list& findings) {
    uint64 next = 0;
    if (!store::get_meta(file, "next_version", next))
        return false;
    qorAttributeSet ignored;
    store::query all(file, "SELECT key, version, value FROM sets");
    while (all.next()) {
        const std::string_view key = all.bytes(0);
        const uint64 version = all.number(1);
        if (version == 0 || version >= next || version > std::numeric_limits<int64>::max())
            findings.add(message::store_odd_version, key);
        if (store::read_set(all.bytes(2), ignored))
            continue;
        qorString reason;
        qorGetLastError(reason);
        findings.add(message::store_unreadable_set, key, reason);
    }
    return !all.has_failed();
}

} // namespace

bool store::check(object_store& store, qorStringArray& out) {
    findings_list findings(out);
    connection& file = store.file();
    const qorStoreTransaction one_state(&store, qorStoreAccess::read);
    if (!one_state || !verify_format(file) || !check_pages(file, findings) || !check_sets(file, findings)) {
        qorString text;
        const uint32 number = qorGetLastError(text);
        if (number != qorError_store_damaged && number != qorError_store_not_ours)
            return store.failed(); // nobody knows whether there is damage
        findings.add_last_error();
    }
    return out.IsEmpty() || file.fail(qorError_store_damaged, out[0]);
}
