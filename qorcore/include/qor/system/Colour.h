// A colour of four components.
#pragma once

#include "qor/system/Stream.h"

// Components range from 0 to 65535; the default is opaque black. Copied by value. Stream form: the fields in their
// order, each an unsigned 16-bit number. A failed Read may have changed some fields.
class qorColour {
public:
    qorColour() noexcept = default;
    // Sets all four components.
    qorColour(uint16 r, uint16 g, uint16 b, uint16 a) noexcept : red(r), green(g), blue(b), alpha(a) {}

    // Like the constructor with the same arguments.
    void Set(uint16 r, uint16 g, uint16 b, uint16 a) noexcept { *this = {r, g, b, a}; }
    // Leaves alpha unchanged.
    void Set(uint16 r, uint16 g, uint16 b) noexcept { Set(r, g, b, alpha); }

    bool operator==(const qorColour&) const noexcept = default;

    // The stream form. Return false if the sink or source failed; the last error says why.
    bool Write(IQORDataSink* sink) const noexcept {
        return sink->WriteUint16(red) && sink->WriteUint16(green) && sink->WriteUint16(blue) &&
               sink->WriteUint16(alpha);
    }
    [[nodiscard]] bool Read(IQORDataSource* source) noexcept {
        return source->ReadUint16(red) && source->ReadUint16(green) && source->ReadUint16(blue) &&
               source->ReadUint16(alpha);
    }

    // Each from 0 to 65535; alpha is the opacity.
    uint16 red = 0;
    uint16 green = 0;
    uint16 blue = 0;
    uint16 alpha = 65535;
};
