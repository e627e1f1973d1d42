// The list of objects.
#include "error/error.h"
#include "memory/allocator.h"
#include "qor/system/template/Object.h"

#include <algorithm>
#include <vector>

namespace {

constexpr char source[] = "qorcore/src/container/object_list";

class object_list final : public qor::object<IQORObjectList> {
public:
    object_list() noexcept : object("qorcore.object_list", "IQORObjectList") {}
    ~object_list() override { Empty(); }

    uint32 GetCount() noexcept override { return static_cast<uint32>(m_objects.size()); }
    IQORInterface* const* GetObjects() noexcept override { return m_objects.data(); }

    int QueryAt(uint32 index, const char* name, void** out) noexcept override {
        return index < GetCount() && m_objects[index] != nullptr ? m_objects[index]->QueryInterface(name, out) : 0;
    }

    void Append(IQORInterface* item) noexcept override { InsertAt(GetCount(), item); }

    void InsertAt(uint32 index, IQORInterface* item) noexcept override {
        m_objects.insert(m_objects.begin() + std::min(index, GetCount()), item);
        if (item != nullptr)
            item->AddRef();
    }

    bool SetAt(uint32 index, IQORInterface* item) noexcept override {
        if (index >= GetCount()) {
            qor::error::set(qorError_not_found);
            return false;
        }
        if (item != nullptr)
            item->AddRef();
        if (IQORInterface* const old = std::exchange(m_objects[index], item))
            old->Release();
        return true;
    }

    void RemoveAt(uint32 index, uint32 count) noexcept override {
        const auto begin = m_objects.begin() + std::min(index, GetCount());
        const auto end = begin + std::min<std::ptrdiff_t>(count, m_objects.end() - begin);
        const std::vector<IQORInterface*> removed(begin, end);
        m_objects.erase(begin, end);
        release(removed);
    }

    bool Remove(IQORInterface* item) noexcept override {
        const int64 found = Find(item, 0);
        if (found >= 0)
            RemoveAt(static_cast<uint32>(found), 1);
        return found >= 0;
    }

    void Empty() noexcept override { release(std::exchange(m_objects, {})); }
    void Reserve(uint32 count) noexcept override { m_objects.reserve(count); }

    void Sort(qorObjectCompare compare, void* context) noexcept override {
        std::stable_sort(m_objects.begin(), m_objects.end(),
                         [=](IQORInterface* left, IQORInterface* right) { return compare(left, right, context) < 0; });
    }

    int64 Find(IQORInterface* item, uint32 start) noexcept override {
        const auto found = std::find(m_objects.begin() + std::min(start, GetCount()), m_objects.end(), item);
        return found != m_objects.end() ? found - m_objects.begin() : -1;
    }

    bool Copy(IQORObjectList* other) noexcept override {
        std::vector<IQORInterface*> copy(other->begin(), other->end());
        for (IQORInterface* const each : copy)
            if (each != nullptr)
                each->AddRef();
        m_objects.swap(copy);
        release(copy);
        return true;
    }

    bool IsEqual(IQORObjectList* other) noexcept override {
        const auto objects = other->Objects();
        return std::equal(m_objects.begin(), m_objects.end(), objects.begin(), objects.end());
    }

private:
    // An object's end may use this list, so they are released outside it.
    static void release(const std::vector<IQORInterface*>& objects) noexcept {
        for (IQORInterface* const each : objects)
            if (each != nullptr)
                each->Release();
    }

    std::vector<IQORInterface*> m_objects;
};

} // namespace

void qor::glue::create_IQORObjectList(IQORObjectList** out) noexcept {
    *out = nullptr;
    memory::make<object_list>(source, __LINE__, out);
}
