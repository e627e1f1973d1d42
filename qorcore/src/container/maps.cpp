// The six maps: one template over Boost's flat hash table.
#include "container/hashing.h"
#include "container/stream_form.h"
#include "error/error.h"
#include "memory/allocator.h"
#include "qor/system/template/Object.h"

#include <algorithm>
#include <boost/unordered/unordered_flat_map.hpp>
#include <string>
#include <type_traits>
#include <vector>

namespace {

using qor::container::stream_form;

constexpr char source[] = "qorcore/src/container/maps";

// Texts are kept as copies, numbers and pointers as they are.
template <class TYPE>
using kept = std::conditional_t<std::is_same_v<TYPE, qorTextView>, std::string, TYPE>;

kept<qorTextView> keep(qorTextView text) { return std::string(std::string_view(text)); }
uint32 keep(uint32 number) noexcept { return number; }
void* keep(void* pointer) noexcept { return pointer; }

// The form in which the table looks for a key.
std::string_view sought(qorTextView key) noexcept { return key; }
uint32 sought(uint32 key) noexcept { return key; }

struct key_hash {
    using is_transparent = void;
    using is_avalanching = void;
    uint64 key = qor::container::hash_key();

    std::size_t operator()(uint32 number) const noexcept {
        return static_cast<std::size_t>(qor::container::hash_number(number, key));
    }
    std::size_t operator()(std::string_view text) const noexcept {
        return static_cast<std::size_t>(qor::container::hash_bytes(text, key));
    }
};

uint64 hash_value(const std::string& text, uint64 key) noexcept { return qor::container::hash_bytes(text, key); }
uint64 hash_value(uint32 number, uint64 key) noexcept { return qor::container::hash_number(number, key); }
uint64 hash_value(void* pointer, uint64 key) noexcept {
    return qor::container::hash_number(reinterpret_cast<std::uintptr_t>(pointer), key);
}

template <class INTERFACE, class KEY, class VALUE, stream_form FORM>
class map_object final : public qor::object<INTERFACE> {
    using table = boost::unordered_flat_map<kept<KEY>, kept<VALUE>, key_hash, std::equal_to<>>;
    using entry = typename INTERFACE::entry;

    static constexpr bool has_stream_form = !std::is_same_v<VALUE, void*>;

public:
    using qor::object<INTERFACE>::object;

    uint64 GetCount() noexcept override { return m_table.size(); }

    bool Get(KEY key, VALUE* value) noexcept override {
        const auto found = m_table.find(sought(key));
        if (found == m_table.end())
            return false;
        *value = found->second;
        return true;
    }
    bool Set(KEY key, VALUE value) noexcept override { return put<true>(key, value); }
    bool Add(KEY key, VALUE value) noexcept override { return put<false>(key, value); }
    bool Remove(KEY key) noexcept override {
        const bool removed = m_table.erase(sought(key)) != 0;
        m_changes += removed;
        return removed;
    }

    uint64 GetMany(const KEY* keys, VALUE* values, bool* found, uint64 count) noexcept override {
        uint64 hits = 0;
        for (uint64 i = 0; i < count; ++i) {
            const auto place = m_table.find(sought(keys[i]));
            const bool is_there = place != m_table.end();
            if (is_there)
                values[i] = place->second;
            if (found != nullptr)
                found[i] = is_there;
            hits += is_there;
        }
        return hits;
    }
    uint64 SetMany(const KEY* keys, const VALUE* values, uint64 count) noexcept override {
        uint64 added = 0;
        for (uint64 i = 0; i < count; ++i)
            added += put<true>(keys[i], values[i]);
        return added;
    }
    uint64 AddMany(const KEY* keys, const VALUE* values, uint64 count) noexcept override {
        uint64 added = 0;
        for (uint64 i = 0; i < count; ++i)
            added += put<false>(keys[i], values[i]);
        return added;
    }
    uint64 RemoveMany(const KEY* keys, uint64 count) noexcept override {
        uint64 removed = 0;
        for (uint64 i = 0; i < count; ++i)
            removed += m_table.erase(sought(keys[i]));
        m_changes += removed;
        return removed;
    }

    uint64 RemoveIf(bool (*unwanted)(const entry& each, void* context) noexcept, void* context) noexcept override {
        const uint64 removed = erase_if(m_table, [=](const auto& each) {
            return unwanted({KEY(each.first), VALUE(each.second)}, context);
        });
        m_changes += removed;
        return removed;
    }

    void Empty() noexcept override {
        ++m_changes;
        table().swap(m_table);
    }
    void Reserve(uint64 count) noexcept override {
        ++m_changes; // walks remember places
        m_table.reserve(static_cast<std::size_t>(count));
    }

    uint64 Next(qorMapCursor& cursor, entry* entries, uint64 room) noexcept override {
        using place = typename table::const_iterator;
        static_assert(sizeof(place) <= sizeof cursor.place && std::is_trivially_copyable_v<place>);
        place at = m_table.begin();
        if (!cursor.has_begun) {
            cursor.has_begun = true;
            cursor.changes = m_changes;
        } else if (cursor.changes != m_changes) {
            return 0;
        } else {
            std::memcpy(static_cast<void*>(&at), cursor.place, sizeof at);
        }
        uint64 count = 0;
        for (; count < room && at != m_table.end(); ++at)
            entries[count++] = {KEY(at->first), VALUE(at->second)};
        std::memcpy(cursor.place, static_cast<const void*>(&at), sizeof at);
        return count;
    }
    const uint64* GetChanges() noexcept override { return &m_changes; }

    uint64 GetSortedKeys(KEY* keys, uint64 room) noexcept override {
        const std::vector<KEY> all = sorted_keys(room);
        const std::size_t count = static_cast<std::size_t>(std::min<uint64>(room, all.size()));
        std::copy_n(all.begin(), count, keys);
        return count;
    }

    bool Copy(INTERFACE* other) noexcept override {
        table copy;
        copy.reserve(static_cast<std::size_t>(other->GetCount()));
        for (const auto& [key, value] : *other)
            copy.emplace(keep(key), keep(value));
        take(copy);
        return true;
    }

    bool IsEqual(INTERFACE* other) noexcept override {
        if (GetCount() != other->GetCount())
            return false;
        return std::all_of(m_table.begin(), m_table.end(), [other](const auto& each) {
            VALUE theirs{};
            return other->Get(KEY(each.first), &theirs) && theirs == VALUE(each.second);
        });
    }

    uint64 GetHash() noexcept override {
        uint64 sum = GetCount(); // does not depend on the order
        const key_hash hash;
        for (const auto& [key, value] : m_table)
            sum += qor::container::mix(hash(key) ^ hash_value(value, hash.key + 1), qor::container::hash_multiplier);
        return qor::container::hash_number(sum, hash.key);
    }

    // The keys are sorted: the order of the table depends on the random key of the process.
    bool Write(IQORDataSink* sink) noexcept override {
        if constexpr (has_stream_form) {
            qor::container::stream_writer to(sink);
            if (!to.begin(FORM) || !to.put(GetCount()))
                return false;
            for (const KEY& each : sorted_keys(GetCount())) {
                const VALUE value = m_table.find(sought(each))->second;
                if (!to.put(sought(each)) || !to.put(sought(value)))
                    return false;
            }
            return true;
        } else {
            return has_none(sink);
        }
    }

    bool Read(IQORDataSource* from) noexcept override {
        if constexpr (has_stream_form) {
            qor::container::stream_reader stream(from);
            uint64 count = 0;
            if (!stream.begin(FORM) || !stream.get(count))
                return false;
            table read;
            kept<KEY> key{};
            kept<VALUE> value{};
            for (; count != 0; --count) {
                if (!stream.get(key) || !stream.get(value))
                    return false;
                if (!read.emplace(key, value).second)
                    return qor::container::stream_fault("a key twice");
            }
            take(read);
            return true;
        } else {
            return has_none(from);
        }
    }

private:
    template <bool REPLACE>
    bool put(KEY key, VALUE value) noexcept {
        if constexpr (std::is_same_v<KEY, qorTextView>) {
            // The copy of a present key would be made for nothing.
            if (const auto found = m_table.find(sought(key)); found != m_table.end())
                return replace<REPLACE>(found->second, value);
            m_table.emplace(keep(key), keep(value));
        } else if constexpr (std::is_same_v<VALUE, qorTextView>) {
            // The copy comes first: `value` may lie in the table, which may move.
            const auto [place, is_new] = m_table.try_emplace(key, keep(value));
            if (!is_new)
                return replace<REPLACE>(place->second, value);
        } else {
            const auto [place, is_new] = m_table.try_emplace(key, value);
            if (!is_new)
                return replace<REPLACE>(place->second, value);
        }
        ++m_changes;
        return true;
    }

    template <bool REPLACE>
    bool replace(kept<VALUE>& present, VALUE value) noexcept {
        if constexpr (REPLACE) {
            present = keep(value); // which may lie in the present text
            m_changes += std::is_same_v<VALUE, qorTextView>;
        }
        return false;
    }

    // The keys in ascending order, or the first `wanted` of them.
    std::vector<KEY> sorted_keys(uint64 wanted) const {
        std::vector<KEY> all;
        all.reserve(m_table.size());
        for (const auto& each : m_table)
            all.emplace_back(each.first);
        if (wanted < all.size())
            std::partial_sort(all.begin(), all.begin() + static_cast<std::ptrdiff_t>(wanted), all.end());
        else
            std::sort(all.begin(), all.end());
        return all;
    }

    void take(table& other) noexcept {
        ++m_changes;
        m_table.swap(other);
    }

    static bool has_none(const void*) noexcept {
        qor::error::set(qorError_not_supported);
        return false;
    }

    table m_table;
    uint64 m_changes = 0;
};

template <class INTERFACE, class KEY, class VALUE, stream_form FORM>
void create(const char* type, const char* name, int line, INTERFACE** out) noexcept {
    *out = nullptr;
    qor::memory::make<map_object<INTERFACE, KEY, VALUE, FORM>>(source, line, out, type, name);
}

constexpr stream_form none{};

} // namespace

void qor::glue::create_IQORMapStringToVoid(IQORMapStringToVoid** out) noexcept {
    create<IQORMapStringToVoid, qorTextView, void*, none>("qorcore.map_string_to_void", "IQORMapStringToVoid", __LINE__,
                                                          out);
}
void qor::glue::create_IQORMapStringToU32(IQORMapStringToU32** out) noexcept {
    create<IQORMapStringToU32, qorTextView, uint32, stream_form::map_string_to_u32>(
        "qorcore.map_string_to_u32", "IQORMapStringToU32", __LINE__, out);
}
void qor::glue::create_IQORMapU32ToString(IQORMapU32ToString** out) noexcept {
    create<IQORMapU32ToString, uint32, qorTextView, stream_form::map_u32_to_string>(
        "qorcore.map_u32_to_string", "IQORMapU32ToString", __LINE__, out);
}
void qor::glue::create_IQORMapU32ToVoid(IQORMapU32ToVoid** out) noexcept {
    create<IQORMapU32ToVoid, uint32, void*, none>("qorcore.map_u32_to_void", "IQORMapU32ToVoid", __LINE__, out);
}
void qor::glue::create_IQORMapStringToString(IQORMapStringToString** out) noexcept {
    create<IQORMapStringToString, qorTextView, qorTextView, stream_form::map_string_to_string>(
        "qorcore.map_string_to_string", "IQORMapStringToString", __LINE__, out);
}
void qor::glue::create_IQORMapU32ToU32(IQORMapU32ToU32** out) noexcept {
    create<IQORMapU32ToU32, uint32, uint32, stream_form::map_u32_to_u32>("qorcore.map_u32_to_u32", "IQORMapU32ToU32",
                                                                         __LINE__, out);
}
