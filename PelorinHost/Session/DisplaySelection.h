#pragma once

#include "PelorinCore/Wire/Message.h"
#include "PelorinHost/Platform/DisplayCapture.h"

namespace pelorin {

// The displays there are, and which of them a phone's settings mean. Queue: the session's. Owned by the
// HostSession.
class DisplaySelection {
public:
    // defaultDisplay: streamed instead of the main one where the phone asks for no particular display.
    DisplaySelection(DisplayCapture& capture, std::optional<std::uint32_t> defaultDisplay);

    bool refresh(); // looks again; true when something changed
    // The one made for the phone, if there is one; known to it by a name of its own from the next refresh on.
    void setPhoneDisplay(std::optional<std::uint32_t> displayID);
    bool lacksPhoneDisplay() const; // it was made, and others are there without it
    message::DisplayList list() const;

    struct Choice {
        std::uint32_t displayID = 0; // 0: there is no display at all
        std::string displayLabel; // for the statistics line
        Rect bounds;
        double pointsPerPixel = 1;
        bool operator==(const Choice&) const = default;
    };
    Choice choose(const DisplaySettings& settings) const;

private:
    const ShareableDisplay* find(std::uint32_t displayID) const;
    const ShareableDisplay* usual() const;

    DisplayCapture& capture;
    std::optional<std::uint32_t> defaultDisplay;
    std::optional<std::uint32_t> phoneDisplay;
    std::vector<ShareableDisplay> displays;
};

} // namespace pelorin
