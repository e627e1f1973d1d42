// The list of variants.
#include "container/json.h"
#include "container/stream_form.h"
#include "container/variant.h"
#include "error/error.h"
#include "memory/allocator.h"
#include "qor/system/template/Object.h"

#include <algorithm>
#include <vector>

namespace {

constexpr char source[] = "qorcore/src/container/variant_list";

class variant_list final : public qor::object<IQORVariantList> {
public:
    explicit variant_list(uint32 level) noexcept : object("qorcore.variant_list", "IQORVariantList"), m_level(level) {}

    uint32 GetCount() noexcept override { return static_cast<uint32>(m_values.size()); }
    qorVariant* GetValues() noexcept override { return m_values.data(); }

    bool Append(const qorVariant& value) noexcept override { return InsertAt(GetCount(), value); }

    bool InsertAt(uint32 index, const qorVariant& value) noexcept override {
        qorVariant copy; // `value` may be an element
        if (!qor::container::copy(copy, value, m_level + 1))
            return false;
        m_values.insert(m_values.begin() + std::min(index, GetCount()), std::move(copy));
        return true;
    }

    bool SetAt(uint32 index, const qorVariant& value) noexcept override {
        qorVariant copy;
        if (index >= GetCount()) {
            qor::error::set(qorError_not_found);
            return false;
        }
        if (!qor::container::copy(copy, value, m_level + 1))
            return false;
        m_values[index] = std::move(copy);
        return true;
    }

    IQORVariantList* AppendList() noexcept override {
        if (!qor::container::check_level(m_level + 1))
            return nullptr;
        return m_values.emplace_back(qor::container::variant_of_list(m_level + 1)).AsList();
    }

    IQORAttributeSet* AppendSet() noexcept override {
        if (!qor::container::check_level(m_level + 1))
            return nullptr;
        return m_values.emplace_back(qor::container::variant_of_set(m_level + 1)).AsSet();
    }

    void RemoveAt(uint32 index, uint32 count) noexcept override {
        const uint32 begin = std::min(index, GetCount());
        const uint32 end = begin + std::min(count, GetCount() - begin);
        m_values.erase(m_values.begin() + begin, m_values.begin() + end);
    }

    void Empty() noexcept override { std::vector<qorVariant>().swap(m_values); }
    void Reserve(uint32 count) noexcept override { m_values.reserve(count); }

    void Sort(bool ascending) noexcept override {
        std::stable_sort(m_values.begin(), m_values.end(), [ascending](const auto& left, const auto& right) {
            return ascending ? left < right : right < left;
        });
    }

    int64 Find(const qorVariant& value, uint32 start) noexcept override {
        const auto found = std::find(m_values.begin() + std::min(start, GetCount()), m_values.end(), value);
        return found != m_values.end() ? found - m_values.begin() : -1;
    }

    bool Copy(IQORVariantList* other) noexcept override {
        std::vector<qorVariant> copies;
        copies.reserve(other->GetCount());
        for (const qorVariant& each : other->Values())
            if (!qor::container::copy(copies.emplace_back(), each, m_level + 1))
                return false;
        m_values.swap(copies);
        return true;
    }

    int Compare(IQORVariantList* other) noexcept override { return qor::container::compare_lists(this, other); }
    uint64 GetHash() noexcept override { return qor::container::hash_list(this); }

    bool Write(IQORDataSink* sink) noexcept override {
        qor::container::stream_writer to(sink);
        return to.begin(qor::container::stream_form::list) && to.put_elements(this);
    }

    bool Read(IQORDataSource* from) noexcept override {
        std::vector<qorVariant> read;
        read.swap(m_values);
        qor::container::stream_reader stream(from);
        const bool done = stream.begin(qor::container::stream_form::list) && stream.get_elements(this);
        if (!done)
            read.swap(m_values);
        return done;
    }

    bool WriteJson(qorString& out, uint32 indent) noexcept override {
        return qor::container::write_json(this, indent, out);
    }

    bool ReadJson(const char* text, uint64 length) noexcept override {
        std::vector<qorVariant> read;
        read.swap(m_values);
        const bool done = qor::container::read_json(text, length, this);
        if (!done)
            read.swap(m_values);
        return done;
    }

private:
    std::vector<qorVariant> m_values;
    uint32 m_level;
};

} // namespace

IQORVariantList* qor::container::new_list(uint32 level) noexcept {
    IQORVariantList* made = nullptr;
    if (!memory::make<variant_list>(source, __LINE__, &made, level))
        qorEndOutOfMemory();
    return made;
}

void qor::glue::create_IQORVariantList(IQORVariantList** out) noexcept {
    *out = nullptr;
    memory::make<variant_list>(source, __LINE__, out, 1u);
}
