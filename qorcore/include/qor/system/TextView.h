// A text that belongs to somebody else: the form in which the containers take and give texts.
#pragma once

#include "qor/system/String.h"

// A pointer and a length. It converts from every kind of text and to std::string_view. Its owner must outlive it. A
// text may contain NULs; one that a container gives is terminated.
struct qorTextView {
    const char* text = ""; // never null
    uint64 length = 0;     // in bytes

    constexpr qorTextView() noexcept = default;
    // Up to the terminator. A null text counts as empty.
    constexpr qorTextView(const char* chars) noexcept {
        if (chars != nullptr)
            *this = qorTextView(std::string_view(chars));
    }
    constexpr qorTextView(std::string_view view) noexcept
        : text(view.data() != nullptr ? view.data() : ""), length(view.size()) {}
    qorTextView(const qorString& string) noexcept : text(string.Text()), length(string.Length()) {}
    template <qor::glue::sized_text VIEW>
    requires(!std::same_as<VIEW, std::string_view> &&
             !std::same_as<VIEW, qorTextView>) constexpr qorTextView(const VIEW& view) noexcept
        : qorTextView(std::string_view(view)) {}

    // The same as a view of the C++ library.
    constexpr operator std::string_view() const noexcept { return {text, static_cast<std::size_t>(length)}; }

    // Compare by unsigned bytes and then by length, with every kind of text.
    friend constexpr bool operator==(qorTextView left, qorTextView right) noexcept {
        return std::string_view(left) == std::string_view(right);
    }
    friend constexpr std::strong_ordering operator<=>(qorTextView left, qorTextView right) noexcept {
        return std::string_view(left) <=> std::string_view(right);
    }
    template <qor::glue::sized_text VIEW>
    requires(!std::same_as<VIEW, qorTextView>) friend constexpr bool operator==(qorTextView left,
                                                                                const VIEW& right) noexcept {
        return std::string_view(left) == std::string_view(right);
    }
    template <qor::glue::sized_text VIEW>
    requires(!std::same_as<VIEW, qorTextView>) friend constexpr std::strong_ordering
    operator<=>(qorTextView left, const VIEW& right) noexcept {
        return std::string_view(left) <=> std::string_view(right);
    }
};
