// A walk over the keys of a store.
#include "common/guarded.h"
#include "set_form.h"
#include "store.h"

#include <vector>

namespace {

class cursor final : public qor::object<IQORObjectStoreCursor> {
public:
    cursor(store::object_store& store, const qorStoreRange& range)
        : object("qor-store.cursor", "IQORObjectStoreCursor"), m_rest(range), m_is_backward(range.backward) {
        store.AddRef();
        m_store.AttachNew(&store);
    }

    bool Next() noexcept override {
        m_has_failed = false;
        if (m_at + 1 < m_found.size() && m_changes == m_store->changes()) {
            ++m_at;
            return true;
        }
        return qor::modules::guarded([this] { return fetch(); }) || fail_if_asked();
    }
    bool HasFailed() noexcept override { return m_has_failed; }

    qorTextView GetKey() noexcept override {
        return is_at_set() ? std::string_view(m_bytes).substr(m_found[m_at].key, m_found[m_at].key_length)
                           : std::string_view("");
    }
    uint64 GetVersion() noexcept override { return is_at_set() ? m_found[m_at].version : 0; }
    bool GetValue(IQORAttributeSet* out) noexcept override {
        if (!is_at_set()) {
            qorSetLastError(qorError_invalid_argument, "GetValue", "the walk");
            return false;
        }
        const found& here = m_found[m_at];
        return store::read_set(std::string_view(m_bytes).substr(here.key + here.key_length + 1, here.value_length),
                               out) ||
               m_store->fail_unreadable(GetKey());
    }

private:
    // A set that was read ahead: where its key stands in `m_bytes`, with its value behind its
    // terminator.
    struct found {
        std::size_t key;
        std::size_t key_length;
        std::size_t value_length;
        uint64 version;
    };

    static constexpr uint64 most_sets = 64;
    static constexpr std::size_t most_bytes = 256 * 1024; // more only for a single set

    bool is_at_set() const noexcept { return m_at < m_found.size(); }

    // Reads the next sets. Behind the last one the walk stays where it was, at its end.
    bool fetch() {
        m_is_fetching = true;
        if (!m_store->may_read("Next"))
            return false;
        if (is_at_set()) { // the rest of the range, behind the set at which the walk stands
            std::string key{std::string_view(GetKey())};
            if (m_is_backward) {
                m_rest.upper = std::move(key);
                m_rest.is_limited = true;
            } else {
                m_rest.lower = std::move(key);
                m_rest.lower += '\0';
            }
        }
        m_found.clear();
        m_bytes.clear();
        m_at = 0;
        m_changes = m_store->changes();
        store::query walk(
            m_store->file(),
            store::limited(m_is_backward ? store::command::walk_back : store::command::walk, m_rest.is_limited));
        walk.bind(1, m_rest.lower).bind(3, most_sets);
        if (m_rest.is_limited)
            walk.bind(2, m_rest.upper);
        while (m_bytes.size() < most_bytes && walk.next()) {
            const std::string_view key = walk.bytes(0);
            const uint64 version = walk.number(1);
            const std::string_view value = walk.bytes(2);
            m_found.push_back({m_bytes.size(), key.size(), value.size(), version});
            m_bytes += key;
            m_bytes += '\0'; // texts that are handed out are terminated
            m_bytes += value;
        }
        if (walk.has_failed()) {
            m_found.clear();
            return m_store->failed();
        }
        m_is_fetching = false;
        return is_at_set();
    }

    bool fail_if_asked() noexcept {
        m_has_failed = m_is_fetching;
        m_is_fetching = false;
        return false;
    }

    zetSmartPointer<store::object_store> m_store;
    store::bounds m_rest; // what the walk has not read
    const bool m_is_backward;
    bool m_is_fetching = false;
    bool m_has_failed = false;
    std::vector<found> m_found;
    std::string m_bytes;
    std::size_t m_at = 0;
    uint64 m_changes = 0; // of the store, when the sets were read
};

} // namespace

bool store::make_cursor(object_store& on, const qorStoreRange& range, IQORObjectStoreCursor** out) noexcept {
    return qor::modules::guarded([&] {
        *out = new (__FILE__, __LINE__) cursor(on, range);
        return true;
    });
}
