#include "PelorinViewer/KeyboardInput.h"

#include "PelorinCore/Keys/KeyMapping.h"

#include <algorithm>

namespace pelorin {

std::optional<message::Key> KeyboardInput::press(int hidUsage, bool isDown, KeyModifiers modifiers)
{
    const auto keyCode = KeyMapping::macKeyCode(hidUsage);
    if (!keyCode) return std::nullopt;
    const bool isChange = isDown ? held.insert(*keyCode).second : held.erase(*keyCode) > 0;
    if (!isChange) return std::nullopt;
    return message::Key{*keyCode, isDown, modifiers};
}

std::optional<message::Text> KeyboardInput::type(std::string text) const
{
    const bool isTyping
        = std::ranges::any_of(held, [](std::uint16_t keyCode) { return !KeyMapping::modifier(keyCode); });
    if (isTyping || text.empty()) return std::nullopt;
    return message::Text{std::move(text)};
}

std::vector<message::Key> KeyboardInput::releaseAll()
{
    std::vector<message::Key> releases;
    for (const std::uint16_t keyCode : held) releases.push_back({keyCode, false, keyModifier::none});
    held.clear();
    return releases;
}

} // namespace pelorin
