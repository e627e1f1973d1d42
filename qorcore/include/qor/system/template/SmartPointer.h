// The owning pointer to a reference-counted object, for any type with AddRef and Release.
#pragma once

#include "qor/glue/binding.h"

#include <initializer_list>
#include <string_view>
#include <utility>

namespace qor::glue {

// The name of a type as g++ writes it in function names; the text of other compilers is cut to the same form.
template <class TYPE>
consteval std::string_view type_name() {
    return type_in_signature(QOR_SIGNATURE);
}

// A text joined at compile time; LENGTH is the total length of the parts.
template <std::size_t LENGTH>
struct joined_text {
    char text[LENGTH + 1] = {};

    // Joins the parts.
    consteval joined_text(std::initializer_list<std::string_view> parts) {
        char* at = text;
        for (const std::string_view part : parts)
            for (const char c : part)
                *at++ = c;
    }
};

// "<signature> [with TYPE = <name>]", the form in which assertions name the functions of templates.
template <class TYPE, std::size_t SIZE>
struct function_text : joined_text<SIZE - 1 + sizeof " [with TYPE = ]" - 1 + type_name<TYPE>().size()> {
    consteval explicit function_text(const char (&signature)[SIZE])
        : function_text::joined_text({{signature, SIZE - 1}, " [with TYPE = ", type_name<TYPE>(), "]"}) {}
};

// The file name in the assertions below.
inline constexpr char smart_pointer_file[] = "qorcore/include/qor/system/template/SmartPointer";

} // namespace qor::glue

// Copies share the object; each holds a reference. A null pointer is allowed; dereferencing it is a programming error
// that is reported.
template <class TYPE>
class zetSmartPointer {
public:
    zetSmartPointer() noexcept = default;
    zetSmartPointer(const zetSmartPointer& other) noexcept : m_ptr(other.m_ptr) {
        if (m_ptr != nullptr)
            m_ptr->AddRef();
    }
    zetSmartPointer(zetSmartPointer&& other) noexcept : m_ptr(std::exchange(other.m_ptr, nullptr)) {}
    zetSmartPointer& operator=(zetSmartPointer other) noexcept {
        std::swap(m_ptr, other.m_ptr);
        return *this;
    }
    ~zetSmartPointer() { Empty(); }

    // The object held. A null pointer is reported, but still returned.
    TYPE* operator->() const noexcept {
        static constexpr auto func = make_text("TYPE* zetSmartPointer<TYPE>::operator->() const");
        if (m_ptr == nullptr) [[unlikely]]
            qor::glue::assert_failed("m_ptr != NULL", func.text, qor::glue::smart_pointer_file, 138);
        return m_ptr;
    }

    // The pointer itself, with the same check, for calls that take a plain pointer.
    TYPE* operator*() const noexcept {
        static constexpr auto func = make_text("TYPE* zetSmartPointer<TYPE>::operator*() const");
        if (m_ptr == nullptr) [[unlikely]]
            qor::glue::assert_failed("m_ptr != NULL", func.text, qor::glue::smart_pointer_file, 130);
        return m_ptr;
    }

    // Takes over the first reference of an object just created by `new`. Attaching the object already held is a
    // programming error, because the object has only one such reference.
    void AttachNew(TYPE* ptr) noexcept {
        static constexpr auto func = make_text("void zetSmartPointer<TYPE>::AttachNew(TYPE*)");
        if (ptr == m_ptr) [[unlikely]]
            qor::glue::assert_failed("ptr != m_ptr", func.text, qor::glue::smart_pointer_file, 180);
        Empty();
        m_ptr = ptr;
    }

    // Releases the object held.
    void Empty() noexcept {
        if (TYPE* const held = std::exchange(m_ptr, nullptr))
            held->Release();
    }

    // For out-parameters: releases the object held and returns the address for the new reference.
    TYPE** Out() noexcept {
        Empty();
        return &m_ptr;
    }

    // Passes the reference to the caller; the pointer becomes null.
    [[nodiscard]] TYPE* Detach() noexcept { return std::exchange(m_ptr, nullptr); }

    // Returns whether no object is held.
    bool IsEmpty() const noexcept { return m_ptr == nullptr; }

private:
    template <std::size_t SIZE>
    static consteval auto make_text(const char (&signature)[SIZE]) {
        return qor::glue::function_text<TYPE, SIZE>(signature);
    }

    TYPE* m_ptr = nullptr;
};
