#pragma once

#include "PelorinHost/Platform/EventPosting.h"

#include <fmt/format.h>
#include <utility>
#include <vector>

namespace pelorin::fakes {

// Writes down every event in the order of posting, one line each, as a person would: "left down 1 at 10,20",
// "key 56 down flags 1 modifier". The pointer follows what is posted, unless the test moves it away.
class RecordingEventPosting final : public EventPosting {
public:
    std::vector<std::string> events;
    std::optional<Point> cursor = Point{0, 0}; // nothing: the platform can't tell
    int cursorQuestions = 0;

    void postPointer(PointerEventType type, Point target, int rawDeltaX, int rawDeltaY) override
    {
        static constexpr const char* names[] = {"moved", "leftDragged", "rightDragged", "otherDragged"};
        events.push_back(fmt::format(
            "{} to {},{} by {},{}", names[static_cast<int>(type)], target.x, target.y, rawDeltaX, rawDeltaY));
        if (followsPointer) cursor = target;
    }
    void postButton(MouseButton button, bool isDown, Point position, int clickState) override
    {
        static constexpr const char* names[] = {"left", "right", "middle"};
        events.push_back(fmt::format("{} {} {} at {},{}", names[static_cast<int>(button)],
            isDown ? "down" : "up", clickState, position.x, position.y));
    }
    void postScroll(int wholeX, int wholeY, ScrollPhase phase, MomentumPhase momentum) override
    {
        events.push_back(fmt::format("scroll {},{} phase {} momentum {}", wholeX, wholeY,
            static_cast<int>(phase), static_cast<int>(momentum)));
    }
    void postKey(std::uint16_t keyCode, bool isDown, KeyModifiers flags, bool isModifier) override
    {
        events.push_back(fmt::format("key {} {} flags {}{}", keyCode, isDown ? "down" : "up", flags.rawValue,
            isModifier ? " modifier" : ""));
    }
    void postUnicode(const std::u16string& text) override
    {
        std::string units;
        for (const char16_t unit : text) {
            if (unit < 0x80)
                units += static_cast<char>(unit);
            else
                units += fmt::format("\\{:04x}", static_cast<unsigned>(unit));
        }
        events.push_back("text " + units);
    }
    std::optional<Point> cursorLocation() override
    {
        ++cursorQuestions;
        return cursor;
    }

    bool followsPointer = true;
    std::vector<std::string> takeEvents() { return std::exchange(events, {}); }
};

} // namespace pelorin::fakes
