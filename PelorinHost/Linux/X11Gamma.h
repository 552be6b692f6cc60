#pragma once

#include "PelorinHost/Linux/X11Connection.h"
#include "PelorinHost/Platform/Displays.h"

#include <optional>

namespace pelorin {

// The gamma ramp of a CRTC, exactly as the server has it; all three of one length.
struct X11Ramp {
    std::vector<std::uint16_t> red;
    std::vector<std::uint16_t> green;
    std::vector<std::uint16_t> blue;
    bool operator==(const X11Ramp&) const = default;

    // The table stretched over `size` entries.
    static X11Ramp of(const GammaTable& table, std::size_t size);
};

// Nothing for a CRTC that has no ramp, and when the server does not answer.
std::optional<X11Ramp> readRamp(const X11Connection& connection, std::uint32_t crtc);
void writeRamp(const X11Connection& connection, std::uint32_t crtc, const X11Ramp& ramp);

} // namespace pelorin
