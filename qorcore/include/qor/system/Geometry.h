// Sizes, points and rectangles with integer coordinates. Sums and differences wrap at 32 bits. Copied by value. Stream
// form: the fields in their order, each a signed 32-bit number. A failed Read may have changed some fields.
#pragma once

#include "qor/system/Stream.h"

#include <utility>

namespace qor::glue {

// Sums and differences that wrap at 32 bits.
inline int32 wrapped_sum(int32 left, int32 right) noexcept {
    return static_cast<int32>(static_cast<uint32>(left) + static_cast<uint32>(right));
}
inline int32 wrapped_difference(int32 left, int32 right) noexcept {
    return static_cast<int32>(static_cast<uint32>(left) - static_cast<uint32>(right));
}

} // namespace qor::glue

// A width and a height.
class qorSize {
public:
    qorSize() noexcept = default;
    // Width and height.
    qorSize(int32 w, int32 h) noexcept : width(w), height(h) {}

    // Like the constructor with the same arguments.
    void Set(int32 w, int32 h) noexcept { *this = {w, h}; }

    bool operator==(const qorSize&) const noexcept = default;

    // The stream form. Return false if the sink or source failed; the last error says why.
    bool Write(IQORDataSink* sink) const noexcept { return sink->WriteInt32(width) && sink->WriteInt32(height); }
    [[nodiscard]] bool Read(IQORDataSource* source) noexcept {
        return source->ReadInt32(width) && source->ReadInt32(height);
    }

    // The width and the height; negative values are allowed.
    int32 width = 0;
    int32 height = 0;
};

// A position; x grows to the right and y grows downwards.
class qorPoint {
public:
    qorPoint() noexcept = default;
    // Its coordinates.
    qorPoint(int32 horizontal, int32 vertical) noexcept : x(horizontal), y(vertical) {}

    // Like the constructor with the same arguments; Empty sets both coordinates to 0.
    void Set(int32 horizontal, int32 vertical) noexcept { *this = {horizontal, vertical}; }
    void Empty() noexcept { *this = {}; }

    bool operator==(const qorPoint&) const noexcept = default;

    // The stream form. Return false if the sink or source failed; the last error says why.
    bool Write(IQORDataSink* sink) const noexcept { return sink->WriteInt32(x) && sink->WriteInt32(y); }
    [[nodiscard]] bool Read(IQORDataSource* source) noexcept { return source->ReadInt32(x) && source->ReadInt32(y); }

    // The coordinates.
    int32 x = 0;
    int32 y = 0;
};

// A half-open rectangle: it contains the points with left <= x < right and top <= y < bottom. It is normalised if left
// <= right and top <= bottom; only Normalise ensures that.
class qorRect {
public:
    qorRect() noexcept = default;
    // From the edges, or from the top left corner and the size.
    qorRect(int32 l, int32 t, int32 r, int32 b) noexcept : left(l), top(t), right(r), bottom(b) {}
    qorRect(const qorPoint& point, const qorSize& size) noexcept
        : qorRect(point.x, point.y, qor::glue::wrapped_sum(point.x, size.width),
                  qor::glue::wrapped_sum(point.y, size.height)) {}

    // Like the constructors with the same arguments; Empty sets all edges to 0.
    void Set(int32 l, int32 t, int32 r, int32 b) noexcept { *this = {l, t, r, b}; }
    void Set(const qorPoint& point, const qorSize& size) noexcept { *this = {point, size}; }
    void Empty() noexcept { *this = {}; }

    // Negative if the rectangle is not normalised.
    int32 GetWidth() const noexcept { return qor::glue::wrapped_difference(right, left); }
    int32 GetHeight() const noexcept { return qor::glue::wrapped_difference(bottom, top); }
    qorSize GetSize() const noexcept { return {GetWidth(), GetHeight()}; }

    // The corners; those on the right and at the bottom lie outside the rectangle.
    qorPoint GetTopLeft() const noexcept { return {left, top}; }
    qorPoint GetTopRight() const noexcept { return {right, top}; }
    qorPoint GetBottomLeft() const noexcept { return {left, bottom}; }
    qorPoint GetBottomRight() const noexcept { return {right, bottom}; }

    // Moves the rectangle.
    void OffsetRect(int32 dx, int32 dy) noexcept {
        left = qor::glue::wrapped_sum(left, dx);
        top = qor::glue::wrapped_sum(top, dy);
        right = qor::glue::wrapped_sum(right, dx);
        bottom = qor::glue::wrapped_sum(bottom, dy);
    }

    // Returns whether the rectangle contains the point.
    bool IsInside(int x, int y) const noexcept { return left <= x && x < right && top <= y && y < bottom; }
    bool IsInside(const qorPoint& point) const noexcept { return IsInside(point.x, point.y); }

    // Swaps left and right if they are in the wrong order, and likewise top and bottom.
    void Normalise() noexcept {
        if (left > right)
            std::swap(left, right);
        if (top > bottom)
            std::swap(top, bottom);
    }

    bool operator==(const qorRect&) const noexcept = default;

    // The stream form. Return false if the sink or source failed; the last error says why.
    bool Write(IQORDataSink* sink) const noexcept {
        return sink->WriteInt32(left) && sink->WriteInt32(top) && sink->WriteInt32(right) && sink->WriteInt32(bottom);
    }
    [[nodiscard]] bool Read(IQORDataSource* source) noexcept {
        return source->ReadInt32(left) && source->ReadInt32(top) && source->ReadInt32(right) &&
               source->ReadInt32(bottom);
    }

    // The edges.
    int32 left = 0;
    int32 top = 0;
    int32 right = 0;
    int32 bottom = 0;
};
