#pragma once

#include "PelorinHost/Platform/EventPosting.h"

#include <algorithm>

namespace pelorin::fakes {

// Displays as the test lists them, the main one first.
class FakeDisplayBounds final : public DisplayBounds {
public:
    struct Display {
        std::uint32_t id = 0;
        Rect bounds;
    };
    std::vector<Display> displays{{1, {0, 0, 1280, 720}}};

    Rect boundsOf(std::uint32_t displayID) override
    {
        const auto found = std::ranges::find(displays, displayID, &Display::id);
        return found == displays.end() ? Rect{} : found->bounds;
    }
    std::vector<std::uint32_t> activeDisplays() override
    {
        std::vector<std::uint32_t> ids;
        for (const auto& d : displays) ids.push_back(d.id);
        return ids;
    }
};

} // namespace pelorin::fakes
