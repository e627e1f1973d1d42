// Arrays of attribute sets and of deltas.
#include "container/hashing.h"
#include "container/stream_form.h"
#include "container/variant.h"
#include "memory/allocator.h"
#include "qor/system/template/Object.h"

#include <algorithm>
#include <vector>

namespace {

using qor::container::stream_form;
using qor::container::stream_reader;

constexpr char source[] = "qorcore/src/container/attribute_arrays";

IQORAttributeSet* make(const IQORAttributeSet*) noexcept { return qor::container::new_set(1); }

IQORAttributeSetDelta* make(const IQORAttributeSetDelta*) noexcept {
    IQORAttributeSetDelta* made = nullptr;
    qor::glue::create_IQORAttributeSetDelta(&made);
    if (made == nullptr)
        qorEndOutOfMemory();
    return made;
}

bool get(stream_reader& stream, IQORAttributeSet* set) noexcept { return stream.get_elements(set); }
bool get(stream_reader& stream, IQORAttributeSetDelta* delta) noexcept {
    return qor::container::read_changes(stream, delta);
}

template <class ELEMENT, class ARRAY, stream_form FORM>
class element_array : public qor::object<ARRAY> {
public:
    using qor::object<ARRAY>::object;

    uint32 GetCount() noexcept override { return static_cast<uint32>(m_elements.size()); }
    ELEMENT* const* GetElements() noexcept override { return m_elements.data(); }

    void Append(ELEMENT* element) noexcept override { InsertAt(GetCount(), element); }

    void InsertAt(uint32 index, ELEMENT* element) noexcept override {
        pointer copy = make_element();
        copy->Copy(element);
        m_elements.insert(m_elements.begin() + std::min(index, GetCount()), copy.Detach());
    }

    ELEMENT* AppendNew() noexcept override { return m_elements.emplace_back(make_element().Detach()); }

    void RemoveAt(uint32 index, uint32 count) noexcept override {
        const auto begin = m_elements.begin() + std::min(index, GetCount());
        const auto end = begin + std::min<std::ptrdiff_t>(count, m_elements.end() - begin);
        std::for_each(begin, end, [](ELEMENT* each) { each->Release(); });
        m_elements.erase(begin, end);
    }

    void Empty() noexcept override { release(m_elements); }

    bool Copy(ARRAY* other) noexcept override {
        std::vector<ELEMENT*> copies;
        for (ELEMENT* const each : other->Elements()) {
            copies.push_back(make_element().Detach());
            copies.back()->Copy(each);
        }
        m_elements.swap(copies);
        release(copies);
        return true;
    }

    bool IsEqual(ARRAY* other) noexcept override {
        const auto theirs = other->Elements();
        return std::equal(m_elements.begin(), m_elements.end(), theirs.begin(), theirs.end(),
                          [](ELEMENT* left, ELEMENT* right) { return left->IsEqual(right); });
    }

    uint64 GetHash() noexcept override {
        uint64 state = qor::container::hash_number(GetCount(), qor::container::hash_key());
        for (ELEMENT* const each : m_elements)
            state = qor::container::mix(state ^ each->GetHash(), qor::container::hash_multiplier);
        return state;
    }

    bool Write(IQORDataSink* sink) noexcept override {
        qor::container::stream_writer to(sink);
        return to.begin(FORM) && to.put(GetCount()) &&
               std::all_of(m_elements.begin(), m_elements.end(), [&](ELEMENT* each) { return to.put_elements(each); });
    }

    bool Read(IQORDataSource* from) noexcept override {
        stream_reader stream(from);
        uint32 count = 0;
        if (!stream.begin(FORM) || !stream.get(count))
            return false;
        std::vector<ELEMENT*> read;
        bool done = true;
        for (; count != 0 && done; --count)
            done = get(stream, read.emplace_back(make_element().Detach()));
        if (done)
            m_elements.swap(read);
        release(read);
        return done;
    }

protected:
    ~element_array() override { release(m_elements); }

    std::vector<ELEMENT*> m_elements; // each with a reference

private:
    using pointer = zetSmartPointer<ELEMENT>;

    static pointer make_element() noexcept {
        pointer made;
        made.AttachNew(make(static_cast<const ELEMENT*>(nullptr)));
        return made;
    }

    static void release(std::vector<ELEMENT*>& elements) noexcept {
        for (ELEMENT* const each : std::exchange(elements, {}))
            each->Release();
    }
};

class set_array final : public element_array<IQORAttributeSet, IQORAttributeSetArray, stream_form::set_array> {
public:
    set_array() noexcept : element_array("qorcore.attribute_set_array", "IQORAttributeSetArray") {}
    ~set_array() override = default;

    void SortBy(qorTextView name, bool ascending) noexcept override {
        std::stable_sort(m_elements.begin(), m_elements.end(), [=](IQORAttributeSet* left, IQORAttributeSet* right) {
            const int order = (*left)[name].Compare((*right)[name]);
            return ascending ? order < 0 : order > 0;
        });
    }

    int64 Find(qorTextView name, const qorVariant& value, uint32 start) noexcept override {
        for (uint32 i = start; i < GetCount(); ++i)
            if (const qorVariant* const found = m_elements[i]->Find(name); found != nullptr && *found == value)
                return i;
        return -1;
    }
};

class delta_array final
    : public element_array<IQORAttributeSetDelta, IQORAttributeSetDeltaArray, stream_form::delta_array> {
public:
    delta_array() noexcept : element_array("qorcore.attribute_set_delta_array", "IQORAttributeSetDeltaArray") {}
    ~delta_array() override = default;

    bool Apply(IQORAttributeSet* set) noexcept override {
        zetSmartPointer<IQORAttributeSet> before;
        before.AttachNew(qor::container::new_set(1));
        if (!before->Copy(set))
            return false;
        for (IQORAttributeSetDelta* const each : m_elements) {
            if (!each->Apply(set)) {
                set->Copy(*before);
                return false;
            }
        }
        return true;
    }

    void Invert() noexcept override {
        std::reverse(m_elements.begin(), m_elements.end());
        for (IQORAttributeSetDelta* const each : m_elements)
            each->Invert();
    }
};

} // namespace

void qor::glue::create_IQORAttributeSetArray(IQORAttributeSetArray** out) noexcept {
    *out = nullptr;
    memory::make<set_array>(source, __LINE__, out);
}

void qor::glue::create_IQORAttributeSetDeltaArray(IQORAttributeSetDeltaArray** out) noexcept {
    *out = nullptr;
    memory::make<delta_array>(source, __LINE__, out);
}
