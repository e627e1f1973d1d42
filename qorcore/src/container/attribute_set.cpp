// The attribute set.
#include "container/hashing.h"
#include "container/json.h"
#include "container/stream_form.h"
#include "container/variant.h"
#include "memory/allocator.h"
#include "qor/system/template/Object.h"

#include <algorithm>
#include <boost/unordered/unordered_flat_set.hpp>
#include <vector>

namespace {

constexpr char source[] = "qorcore/src/container/attribute_set";

using attributes = std::vector<qorAttribute>;

// Finds an attribute by its name: the indices of the attributes, hashed by the names that stand there. A small set is
// searched from the front and has no index.
class name_index {
public:
    explicit name_index(const attributes& all) noexcept : m_all(&all), m_table(0, hash{&all}, equal{&all}) {}

    // The index of a name, or -1.
    int64 find(std::string_view name) const noexcept {
        if (m_all->size() <= most_searched) {
            for (std::size_t i = 0; i < m_all->size(); ++i)
                if ((*m_all)[i].name == name)
                    return static_cast<int64>(i);
            return -1;
        }
        if (m_table.size() != m_all->size())
            fill();
        const auto found = m_table.find(name);
        return found != m_table.end() ? int64{*found} : -1;
    }

    // To be called after a name was added at the end, and after any other change.
    void added() noexcept {
        if (m_table.size() + 1 == m_all->size() && !m_table.empty())
            m_table.insert(static_cast<uint32>(m_all->size() - 1));
    }
    void changed() noexcept { m_table.clear(); }

private:
    static constexpr std::size_t most_searched = 12;

    struct hash {
        using is_transparent = void;
        using is_avalanching = void;
        const attributes* all;
        std::size_t operator()(uint32 index) const noexcept { return (*this)(std::string_view((*all)[index].name)); }
        std::size_t operator()(std::string_view name) const noexcept {
            return static_cast<std::size_t>(qor::container::hash_bytes(name, qor::container::hash_key()));
        }
    };
    struct equal {
        using is_transparent = void;
        const attributes* all;
        bool operator()(uint32 left, uint32 right) const noexcept { return left == right; }
        bool operator()(std::string_view name, uint32 index) const noexcept { return (*all)[index].name == name; }
        bool operator()(uint32 index, std::string_view name) const noexcept { return (*all)[index].name == name; }
    };

    void fill() const noexcept {
        m_table.clear();
        m_table.reserve(m_all->size());
        for (uint32 i = 0; i < m_all->size(); ++i)
            m_table.insert(i);
    }

    const attributes* m_all;
    mutable boost::unordered_flat_set<uint32, hash, equal> m_table; // all indices, or none: then they are not known
};

class attribute_set final : public qor::object<IQORAttributeSet> {
public:
    explicit attribute_set(uint32 level) noexcept
        : object("qorcore.attribute_set", "IQORAttributeSet"), m_index(m_attributes), m_level(level) {}

    uint32 GetCount() noexcept override { return static_cast<uint32>(m_attributes.size()); }
    qorAttribute* GetAttributes() noexcept override { return m_attributes.data(); }

    qorVariant* Find(qorTextView name) noexcept override {
        const int64 found = m_index.find(name);
        return found >= 0 ? &m_attributes[static_cast<std::size_t>(found)].value : nullptr;
    }
    int64 FindIndex(qorTextView name) noexcept override { return m_index.find(name); }

    bool Set(qorTextView name, const qorVariant& value) noexcept override {
        qorVariant copy; // `value` may be in this set
        if (!qor::container::copy(copy, value, m_level + 1))
            return false;
        place(name) = std::move(copy);
        return true;
    }

    IQORVariantList* SetList(qorTextView name) noexcept override {
        if (!qor::container::check_level(m_level + 1))
            return nullptr;
        return (place(name) = qor::container::variant_of_list(m_level + 1)).AsList();
    }

    IQORAttributeSet* SetSet(qorTextView name) noexcept override {
        if (!qor::container::check_level(m_level + 1))
            return nullptr;
        return (place(name) = qor::container::variant_of_set(m_level + 1)).AsSet();
    }

    bool Remove(qorTextView name) noexcept override {
        const int64 found = m_index.find(name);
        if (found >= 0)
            RemoveAt(static_cast<uint32>(found), 1);
        return found >= 0;
    }

    void RemoveAt(uint32 index, uint32 count) noexcept override {
        const uint32 begin = std::min(index, GetCount());
        const uint32 end = begin + std::min(count, GetCount() - begin);
        m_index.changed();
        m_attributes.erase(m_attributes.begin() + begin, m_attributes.begin() + end);
    }

    void Empty() noexcept override {
        m_index.changed();
        attributes().swap(m_attributes);
    }
    void Reserve(uint32 count) noexcept override { m_attributes.reserve(count); }

    void Sort(bool ascending) noexcept override {
        m_index.changed();
        std::sort(m_attributes.begin(), m_attributes.end(), [ascending](const auto& left, const auto& right) {
            return ascending ? left.name < right.name : right.name < left.name;
        });
    }

    bool Copy(IQORAttributeSet* other) noexcept override {
        return replace([other](attribute_set& copy) { return qor::container::copy_elements(&copy, other); });
    }

    int Compare(IQORAttributeSet* other) noexcept override { return qor::container::compare_sets(this, other); }
    uint64 GetHash() noexcept override { return qor::container::hash_set(this); }

    bool Write(IQORDataSink* sink) noexcept override {
        qor::container::stream_writer to(sink);
        return to.begin(qor::container::stream_form::set) && to.put_elements(this);
    }

    bool Read(IQORDataSource* from) noexcept override {
        return replace([from](attribute_set& read) {
            qor::container::stream_reader stream(from);
            return stream.begin(qor::container::stream_form::set) && stream.get_elements(&read);
        });
    }

    bool WriteJson(qorString& out, uint32 indent) noexcept override {
        return qor::container::write_json(this, indent, out);
    }

    bool ReadJson(const char* text, uint64 length) noexcept override {
        return replace([text, length](attribute_set& read) { return qor::container::read_json(text, length, &read); });
    }

private:
    // The value of a name, which is added if it is missing.
    qorVariant& place(std::string_view name) noexcept {
        if (const int64 found = m_index.find(name); found >= 0)
            return m_attributes[static_cast<std::size_t>(found)].value;
        m_attributes.push_back({qorString(name), {}});
        m_index.added();
        return m_attributes.back().value;
    }

    // Takes over the content of another set, if `fill` fills it.
    template <class FILL>
    bool replace(FILL fill) noexcept {
        zetSmartPointer<attribute_set> made;
        made.AttachNew(static_cast<attribute_set*>(qor::container::new_set(m_level)));
        if (!fill(**made))
            return false;
        m_index.changed();
        m_attributes.swap((*made)->m_attributes);
        (*made)->m_index.changed();
        return true;
    }

    attributes m_attributes;
    name_index m_index;
    uint32 m_level;
};

} // namespace

IQORAttributeSet* qor::container::new_set(uint32 level) noexcept {
    IQORAttributeSet* made = nullptr;
    if (!memory::make<attribute_set>(source, __LINE__, &made, level))
        qorEndOutOfMemory();
    return made;
}

void qor::glue::create_IQORAttributeSet(IQORAttributeSet** out) noexcept {
    *out = nullptr;
    memory::make<attribute_set>(source, __LINE__, out, 1u);
}
