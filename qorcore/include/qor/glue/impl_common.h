// The object model that every client compiles in: reference-counted objects, components with named interfaces, and an
// owned block of bytes. All of it is inline, on top of the table. The lines that assertions and allocations name are
// constants of the contract.
#pragma once

#include "qor/glue/primitives.h"
#include "qor/system/Interface.h"
#include "qor/system/Memory.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <utility>

namespace qor::glue {

// The file name in the assertions and allocations below, whichever file contains them.
inline constexpr char common_file[] = "qorcore/include/qor/glue/impl_common";

// Returns the address `bytes` behind `begin`. The result may lie outside the object, and `begin` may be null, because
// an operation that reports a bad index still returns the address. It adds integers: the pointer addition would be
// undefined.
template <class TYPE>
TYPE* address_behind(TYPE* begin, std::size_t bytes) noexcept {
    return reinterpret_cast<TYPE*>(reinterpret_cast<std::uintptr_t>(begin) + bytes);
}

// Reports a new object to the framework, so that the allocation log can name its type. Does nothing before the table is
// bound.
inline void announce(const void* object, const char* type_name) noexcept {
    if (is_bound())
        qorAnnounceObject(object, type_name);
}

} // namespace qor::glue

// Allocates a framework object with the tracked allocator, under the source location of the expression:
// `reader.AttachNew(QOR_NEW my_reader(path))`. Throws std::bad_alloc.
#define QOR_NEW new (std::source_location::current())

// The operators that allocate framework objects. operator new takes the source location from QOR_NEW, or explicitly as
// in `new ("util/tool/main", 55) tool_app`.
#define QOR_TRACKED_NEW                                                                                                \
    static void* operator new(std::size_t size, const char* file, int line) {                                          \
        return qor::glue::or_throw(qor::glue::qor_do_new(size, file, line));                                           \
    }                                                                                                                  \
    static void* operator new(std::size_t size, std::source_location where) {                                          \
        return operator new(size, qor::glue::path_without_extension(where.file_name()), qor::glue::line_of(where));    \
    }                                                                                                                  \
    static void operator delete(void* object) noexcept { qor::glue::qor_do_delete(object); }                           \
    static void operator delete(void* object, const char*, int) noexcept { qor::glue::qor_do_delete(object); }         \
    static void operator delete(void* object, std::source_location) noexcept { qor::glue::qor_do_delete(object); }

// A reference-counted object with one interface. It starts with one reference, and the last Release destroys it. Any
// thread may add and drop references. The type name is kept by pointer and must outlive the object.
class qorRefObject {
public:
    // Announces the object to the allocation log under the name of its type.
    explicit qorRefObject(const char* name) noexcept : m_type_name(name) {
        qor::glue::announce(this, name);
        m_refcount.Set(1);
    }
    qorRefObject(const qorRefObject&) = delete;
    qorRefObject& operator=(const qorRefObject&) = delete;
    virtual ~qorRefObject() {
        if (m_refcount.Read() != 0)
            qor::glue::assert_failed("m_refcount.Read() == 0", "virtual qorRefObject::~qorRefObject()",
                                     qor::glue::common_file, 894);
    }

    // Called once, just before the object is destroyed.
    virtual void OnFinalRelease() noexcept {}

    // The name that was passed to the constructor.
    const char* TypeName() const noexcept { return m_type_name; }

    // Add or drop a reference. Any thread; the last Release destroys the object on the calling thread.
    void AddRef() noexcept { m_refcount.Increment(); }
    void Release() noexcept {
        if (!m_refcount.DecrementAndTestZero())
            return;
        OnFinalRelease();
        delete this;
    }

    QOR_TRACKED_NEW

private:
    const char* m_type_name;
    qorAtomic2 m_refcount;
};

// A reference-counted object with a table of named interfaces. Its constructor sets the interfaces, before other
// threads see the object; afterwards they are only read. Names are kept by pointer and must outlive the object.
class qorComponent2 {
public:
    // Announces the object to the allocation log under the name of its type, or, without a name, keeps
    // `**type.not.set**` as its type. Throws std::bad_alloc.
    explicit qorComponent2(const char* name) : m_data(new shared_record{name}) {
        m_data->refcount.Set(1);
        qor::glue::announce(this, name);
    }
    qorComponent2() : m_data(new shared_record{"**type.not.set**"}) {
        m_data->refcount.Set(1);
        qor::glue::announce(this, nullptr);
    }
    qorComponent2(const qorComponent2&) = delete;
    qorComponent2& operator=(const qorComponent2&) = delete;
    virtual ~qorComponent2() {
        if (m_data->refcount.Read() != 0)
            qor::glue::assert_failed("m_data->refcount.Read() == 0", "virtual qorComponent2::~qorComponent2()",
                                     qor::glue::common_file, 973);
        if (m_data->interfaces != nullptr)
            qor_do_free(m_data->interfaces, qor::glue::common_file, 976);
        delete m_data;
    }

    // Called once, just before the object is destroyed.
    virtual void OnFinalRelease() noexcept {}

    // Add or drop a reference. Any thread; the last Release destroys the object on the calling thread.
    void object_AddRef() noexcept { m_data->refcount.Increment(); }
    void object_Release() noexcept {
        if (!m_data->refcount.DecrementAndTestZero())
            return;
        OnFinalRelease();
        delete this;
    }

    // Offers `iface` under `name`; a successful query adds a reference to `owner`. If a name is set twice, queries find
    // the first one. Throws std::bad_alloc.
    void x_SetInterface2(const char* name, void* iface, IQORInterface* owner) {
        const uint32 count = m_data->interface_count;
        m_data->interfaces = static_cast<interface_entry*>(
            m_data->interfaces == nullptr
                ? qor_do_malloc(0, sizeof(interface_entry), true, qor::glue::common_file, 1005)
                : qor_do_realloc(m_data->interfaces, (count + 1ull) * sizeof(interface_entry), qor::glue::common_file,
                                 1007));
        m_data->interfaces[count] = {name, iface, owner};
        m_data->interface_count = count + 1;
    }

    // The same for an interface that is its own owner.
    void x_SetInterface(const char* name, void* iface) {
        x_SetInterface2(name, iface, static_cast<IQORInterface*>(iface));
    }

    // Returns 1 and stores the interface with a new reference, or returns 0 and leaves *out unchanged.
    int object_QueryInterface(const char* name, void** out) noexcept {
        const interface_entry* const entry = find(name);
        if (entry == nullptr)
            return 0;
        *out = entry->iface;
        entry->owner->AddRef();
        return 1;
    }

    // Returns 1 if the interface exists, else 0. Adds no reference.
    int object_TestInterface(const char* name) const noexcept { return find(name) != nullptr ? 1 : 0; }

    QOR_TRACKED_NEW

private:
    struct interface_entry {
        const char* name;
        void* iface;
        IQORInterface* owner;
    };

    struct shared_record {
        const char* type_name;
        qorAtomic2 refcount{};
        interface_entry* interfaces = nullptr;
        uint32 interface_count = 0;
    };

    const interface_entry* find(const char* name) const noexcept {
        for (uint32 i = 0; i < m_data->interface_count; ++i)
            if (std::strcmp(m_data->interfaces[i].name, name) == 0)
                return &m_data->interfaces[i];
        return nullptr;
    }

    shared_record* m_data;
};

#undef QOR_TRACKED_NEW

// An owned block of bytes. Operations that install new bytes free the old ones first, so the block is empty when memory
// runs out (std::bad_alloc); only a failed Realloc leaves it unchanged. Not thread-safe.
class qorDataBlock {
public:
    qorDataBlock() noexcept = default;
    qorDataBlock(const qorDataBlock&) = delete;
    qorDataBlock& operator=(const qorDataBlock&) = delete;
    ~qorDataBlock() { release(); }

    // Frees the bytes and leaves the block empty.
    void Free() noexcept {
        release();
        m_data = {};
    }

    // Allocates `n` bytes, uninitialised.
    void* Create(uint32 n) {
        Free();
        m_data.bytes = qor_do_malloc(0, n, true, qor::glue::common_file, 1842);
        m_data.size = n;
        return m_data.bytes;
    }

    // Replaces the content by a copy of `n` bytes, which must not lie in this block.
    void AttachCopy(const void* src, uint32 n) {
        void* const bytes = Create(n);
        if (n != 0)
            std::memcpy(bytes, src, n);
    }

    // Takes ownership of `p`, a block from the tracked allocator.
    void Attach(void* p, uint32 n) noexcept {
        Free();
        m_data = {p, n};
    }

    // Takes over the bytes of another block and leaves that block empty. A block that steals from itself becomes empty.
    void Steal(qorDataBlock& src) noexcept {
        Free();
        m_data = std::exchange(src.m_data, {});
    }

    // Passes ownership of the bytes to the caller, who frees them with qor_do_free. The block is empty afterwards.
    [[nodiscard]] void* Detach() noexcept { return std::exchange(m_data, {}).bytes; }

    // Changes the size and keeps the bytes up to the smaller of both sizes.
    void* Realloc(uint32 n) {
        m_data.bytes = qor_do_realloc(m_data.bytes, n, qor::glue::common_file, 1887);
        m_data.size = n;
        return m_data.bytes;
    }

    // Becomes a copy of another block. A block copied onto itself becomes empty, because it frees its bytes first.
    void Copy(const qorDataBlock& src) {
        Free();
        if (src.m_data.bytes != nullptr) {
            m_data.bytes = qor_do_memdup(src.m_data.bytes, src.m_data.size, qor::glue::common_file, 1897);
            m_data.size = src.m_data.size;
        }
    }

    // The bytes, or null if the block is empty. Valid until the block changes.
    void* ptr() noexcept { return m_data.bytes; }
    const void* ptr() const noexcept { return m_data.bytes; }

    // The address of a byte. An offset at or beyond the size is reported, and the address is still returned.
    void* ptr_at(uint32 offset) noexcept {
        if (offset >= m_data.size)
            qor::glue::assert_failed("offset < m_data.size", "void* qorDataBlock::ptr_at(uint32)",
                                     qor::glue::common_file, 1858);
        return qor::glue::address_behind(m_data.bytes, offset);
    }
    const void* ptr_at(uint32 offset) const noexcept {
        if (offset >= m_data.size)
            qor::glue::assert_failed("offset < m_data.size", "const void* qorDataBlock::ptr_at(uint32) const",
                                     qor::glue::common_file, 1865);
        return qor::glue::address_behind<const void>(m_data.bytes, offset);
    }

    // The size in bytes.
    uint32 Size() const noexcept { return m_data.size; }

private:
    void release() noexcept {
        if (m_data.bytes != nullptr)
            qor_do_free(m_data.bytes, qor::glue::common_file, 1809);
    }

    struct {
        void* bytes = nullptr;
        uint32 size = 0;
    } m_data;
};
