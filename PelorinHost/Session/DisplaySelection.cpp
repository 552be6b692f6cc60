#include "PelorinHost/Session/DisplaySelection.h"

#include <algorithm>

namespace pelorin {
namespace {

constexpr std::size_t mostListed = 65'535; // what the message's count can say
constexpr const char* phoneDisplayName = "Pelorin"; // whatever the platform calls it
constexpr const char* fallbackLabel = "镜像主屏（虚拟屏创建失败）";

std::uint32_t points(double length)
{
    return static_cast<std::uint32_t>(std::clamp(length, 0.0, 4'294'967'295.0));
}

double pointsPerPixel(const ShareableDisplay& display)
{
    return display.modeWidthPx > 0 ? display.bounds.width / display.modeWidthPx : 1;
}

} // namespace

DisplaySelection::DisplaySelection(DisplayCapture& newCapture, std::optional<std::uint32_t> newDefaultDisplay)
    : capture(newCapture),
      defaultDisplay(newDefaultDisplay)
{
}

bool DisplaySelection::refresh()
{
    auto now = capture.shareableDisplays();
    if (now.size() > mostListed) now.resize(mostListed);
    for (auto& display : now)
        if (display.id == phoneDisplay) display.name = phoneDisplayName;
    if (now == displays) return false;
    displays = std::move(now);
    return true;
}

void DisplaySelection::setPhoneDisplay(std::optional<std::uint32_t> displayID)
{
    phoneDisplay = displayID;
}

bool DisplaySelection::lacksPhoneDisplay() const
{
    return phoneDisplay && !displays.empty() && !find(*phoneDisplay);
}

message::DisplayList DisplaySelection::list() const
{
    message::DisplayList list;
    for (const auto& display : displays)
        list.displays.push_back({display.id, display.name, points(display.bounds.width),
            points(display.bounds.height), display.isMain});
    return list;
}

DisplaySelection::Choice DisplaySelection::choose(const DisplaySettings& settings) const
{
    const bool followsPhone = settings.mode == DisplayMode::followPhone;
    const auto* asked = find(followsPhone ? phoneDisplay.value_or(0) : settings.displayID);
    const auto* display = asked ? asked : usual();
    if (!display) return {};
    return {display->id, followsPhone && !asked ? fallbackLabel : display->name, display->bounds,
        pelorin::pointsPerPixel(*display)};
}

const ShareableDisplay* DisplaySelection::find(std::uint32_t displayID) const
{
    const auto found = std::ranges::find(displays, displayID, &ShareableDisplay::id);
    return found == displays.end() ? nullptr : &*found;
}

const ShareableDisplay* DisplaySelection::usual() const
{
    if (const auto* preferred = defaultDisplay ? find(*defaultDisplay) : nullptr) return preferred;
    const auto main = std::ranges::find(displays, true, &ShareableDisplay::isMain);
    if (main != displays.end()) return &*main;
    return displays.empty() ? nullptr : &displays.front();
}

} // namespace pelorin
