#pragma once

#include "PelorinHost/Linux/X11Monitors.h"
#include "PelorinHost/Platform/EventPosting.h"

namespace pelorin {

// Monitors as the pointer's rules see them; a point is a pixel here. Any thread; asked at every motion, it
// answers from memory.
class X11DisplayBounds final : public DisplayBounds {
public:
    explicit X11DisplayBounds(std::string display) : monitors(std::move(display)) {}

    Rect boundsOf(std::uint32_t displayID) override
    {
        for (const auto& display : monitors.displays())
            if (display.id == displayID) return display.bounds;
        return {};
    }

    std::vector<std::uint32_t> activeDisplays() override
    {
        std::vector<std::uint32_t> ids;
        for (const auto& display : monitors.displays()) ids.push_back(display.id);
        return ids;
    }

private:
    X11MonitorCache monitors;
};

} // namespace pelorin
