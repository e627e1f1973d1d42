// The difference between two attribute sets.
#include "container/hashing.h"
#include "container/stream_form.h"
#include "container/variant.h"
#include "error/error.h"
#include "memory/allocator.h"
#include "qor/system/template/Object.h"

#include <algorithm>
#include <boost/unordered/unordered_flat_map.hpp>
#include <string>
#include <vector>

namespace {

constexpr char source[] = "qorcore/src/container/attribute_delta";

using changes = std::vector<qorAttributeChange>;

struct name_hash {
    using is_transparent = void;
    using is_avalanching = void;
    std::size_t operator()(std::string_view name) const noexcept {
        return static_cast<std::size_t>(qor::container::hash_bytes(name, qor::container::hash_key()));
    }
};

class attribute_delta final : public qor::object<IQORAttributeSetDelta> {
public:
    attribute_delta() noexcept : object("qorcore.attribute_set_delta", "IQORAttributeSetDelta") {}

    uint32 GetCount() noexcept override { return static_cast<uint32>(m_changes.size()); }
    const qorAttributeChange* GetChanges() noexcept override { return m_changes.data(); }

    const qorAttributeChange* Find(qorTextView name) noexcept override {
        const auto found = m_places.find(std::string_view(name));
        return found != m_places.end() ? &m_changes[found->second] : nullptr;
    }

    void SetDifference(IQORAttributeSet* from, IQORAttributeSet* to) noexcept override {
        Empty();
        for (const auto& [name, value] : from->Attributes()) {
            const qorVariant* const after = to->Find(name);
            if (after == nullptr)
                add({name, true, false, value, {}});
            else if (*after != value)
                add({name, true, true, value, *after});
        }
        for (const auto& [name, value] : to->Attributes())
            if (from->Find(name) == nullptr)
                add({name, false, true, {}, value});
    }

    bool Apply(IQORAttributeSet* set) noexcept override {
        for (const qorAttributeChange& each : m_changes) {
            const qorVariant* const value = set->Find(each.name);
            if (each.was ? value == nullptr || *value != each.before : value != nullptr) {
                qor::error::set(qorError_delta_does_not_fit, {each.name});
                return false;
            }
        }
        // A set that lies deep in others may refuse a value with further levels. Then it gets back what it had.
        zetSmartPointer<IQORAttributeSet> before;
        before.AttachNew(qor::container::new_set(1));
        const bool may_fail = std::any_of(m_changes.begin(), m_changes.end(), [](const qorAttributeChange& each) {
            return each.after.AsList() != nullptr || each.after.AsSet() != nullptr;
        });
        if (may_fail && !before->Copy(set))
            return false;
        for (const qorAttributeChange& each : m_changes) {
            if (!each.is) {
                set->Remove(each.name);
            } else if (!set->Set(each.name, each.after)) {
                set->Copy(*before);
                return false;
            }
        }
        return true;
    }

    void Invert() noexcept override {
        for (qorAttributeChange& each : m_changes) {
            std::swap(each.was, each.is);
            std::swap(each.before, each.after);
        }
    }

    bool Merge(IQORAttributeSetDelta* other, qorStringArray& conflicts) noexcept override {
        const changes theirs(other->begin(), other->end()); // the other delta may be this one
        bool fits = true;
        for (const qorAttributeChange& each : theirs) {
            const qorAttributeChange* const own = Find(each.name);
            if (own == nullptr) {
                add(each);
            } else if (!is_same(*own, each)) {
                conflicts.Append(each.name);
                if (std::exchange(fits, false))
                    qor::error::set(qorError_delta_conflict, {each.name});
            }
        }
        return fits;
    }

    void Empty() noexcept override {
        m_changes = {};
        m_places.clear();
    }

    bool Copy(IQORAttributeSetDelta* other) noexcept override {
        const changes copy(other->begin(), other->end());
        Empty();
        for (const qorAttributeChange& each : copy)
            add(each);
        return true;
    }

    bool IsEqual(IQORAttributeSetDelta* other) noexcept override {
        return GetCount() == other->GetCount() &&
               std::all_of(m_changes.begin(), m_changes.end(), [other](const qorAttributeChange& each) {
                   const qorAttributeChange* const theirs = other->Find(each.name);
                   return theirs != nullptr && is_same(each, *theirs);
               });
    }

    uint64 GetHash() noexcept override {
        uint64 sum = GetCount(); // does not depend on the order
        for (const qorAttributeChange& each : m_changes) {
            const uint64 values = qor::container::hash_attribute(each.name, each.before) + (each.was ? 1 : 0);
            sum += qor::container::mix(values ^ each.after.Hash(), qor::container::hash_multiplier) + (each.is ? 1 : 0);
        }
        return qor::container::hash_number(sum, qor::container::hash_key());
    }

    bool Write(IQORDataSink* sink) noexcept override {
        qor::container::stream_writer to(sink);
        return to.begin(qor::container::stream_form::delta) && to.put_elements(this);
    }

    bool Read(IQORDataSource* from) noexcept override {
        qor::container::stream_reader stream(from);
        return stream.begin(qor::container::stream_form::delta) && read_changes(stream);
    }

    // Reads the changes alone; unchanged on failure.
    bool read_changes(qor::container::stream_reader& stream) noexcept {
        zetSmartPointer<attribute_delta> read;
        read.AttachNew(new (source, __LINE__) attribute_delta);
        if (!stream.get_changes([&](qorAttributeChange&& each) { return (*read)->add(std::move(each)); }))
            return false;
        m_changes.swap((*read)->m_changes);
        m_places.swap((*read)->m_places);
        return true;
    }

private:
    static bool is_same(const qorAttributeChange& left, const qorAttributeChange& right) noexcept {
        return left.was == right.was && left.is == right.is && left.before == right.before && left.after == right.after;
    }

    // Returns false if the name is there already.
    bool add(qorAttributeChange change) noexcept {
        if (!m_places.try_emplace(std::string(std::string_view(change.name)), GetCount()).second)
            return false;
        m_changes.push_back(std::move(change));
        return true;
    }

    changes m_changes;
    boost::unordered_flat_map<std::string, uint32, name_hash, std::equal_to<>> m_places; // of the names in m_changes
};

} // namespace

bool qor::container::read_changes(stream_reader& stream, IQORAttributeSetDelta* delta) noexcept {
    return static_cast<attribute_delta*>(delta)->read_changes(stream);
}

void qor::glue::create_IQORAttributeSetDelta(IQORAttributeSetDelta** out) noexcept {
    *out = nullptr;
    memory::make<attribute_delta>(source, __LINE__, out);
}
