// A container that is a value: it creates its object, copies it and compares it.
#pragma once

#include "qor/system/template/SmartPointer.h"

#include <iterator>

// Holds one object of INTERFACE, which CREATE makes, for as long as it lives. Copying copies the content. Operations
// are called with `->`; range-for, `==` and conversion to the plain pointer work on the object itself. A moved-from
// container can only be assigned to and destroyed. Constructing and copying throw std::bad_alloc.
template <class INTERFACE, void (*CREATE)(INTERFACE**)>
class zetOwned {
public:
    using object_type = INTERFACE; // what it owns

    // An empty container.
    zetOwned() { CREATE(m_object.Out()); }
    zetOwned(const zetOwned& other) : zetOwned() { m_object->Copy(*other.m_object); }
    zetOwned(zetOwned&& other) noexcept = default;
    zetOwned& operator=(const zetOwned& other) {
        if (this != &other)
            *this = zetOwned(other);
        return *this;
    }
    zetOwned& operator=(zetOwned&& other) noexcept = default;
    ~zetOwned() = default;

    // The object, which lives as long as this container or a reference to it.
    INTERFACE* operator->() const noexcept { return *m_object; }
    INTERFACE* Interface() const noexcept { return *m_object; }
    operator INTERFACE*() const noexcept { return *m_object; }

    // For range-for, where the interface has elements.
    auto begin() const noexcept requires requires(INTERFACE& object) { object.begin(); }
    { return m_object->begin(); }
    auto end() const noexcept requires requires(INTERFACE& object) { object.end(); }
    { return m_object->end(); }

    // Whether the contents are equal, as the interface defines it.
    friend bool operator==(const zetOwned& left, const zetOwned& right) noexcept {
        return left.m_object->IsEqual(*right.m_object);
    }

private:
    zetSmartPointer<INTERFACE> m_object;
};
