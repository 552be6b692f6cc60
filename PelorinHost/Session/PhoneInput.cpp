#include "PelorinHost/Session/PhoneInput.h"

#include <algorithm>

namespace pelorin {
namespace {

using namespace std::chrono_literals;

constexpr auto pasteDelay = 50ms; // until the applications have seen the clipboard change
constexpr std::uint16_t keyV = 9;

struct ModifierKey {
    KeyModifiers modifier;
    std::uint16_t keyCode;
};
constexpr ModifierKey pasteModifierKeys[] = {{keyModifier::command, 55}, {keyModifier::control, 59}};

std::size_t characterCount(const std::string& utf8)
{
    return static_cast<std::size_t>(
        std::ranges::count_if(utf8, [](char byte) { return (byte & 0xC0) != 0x80; }));
}

} // namespace

PhoneInput::PhoneInput(HostPlatform& platform, QueueRef newQueue)
    : queue(std::move(newQueue)),
      posting(platform.makeEventPosting(queue)),
      pasteboard(platform.makePasteboard(queue)),
      clipboardBridge(*pasteboard, queue),
      inputInjector(*posting, platform.displayBounds(), *queue)
{
}

void PhoneInput::handle(const message::MouseMove& move)
{
    inputInjector.move(move.dx, move.dy);
}

void PhoneInput::handle(const message::MouseButtonChange& change)
{
    inputInjector.button(change.button, change.isDown, change.clickCount);
}

void PhoneInput::handle(const message::Scroll& scroll)
{
    inputInjector.scroll(scroll.dx, scroll.dy, scroll.phase, scroll.momentum);
}

void PhoneInput::handle(const message::Key& key)
{
    inputInjector.key(key.keyCode, key.isDown, key.modifiers);
}

void PhoneInput::handle(const message::Text& text)
{
    inputInjector.typeText(text.text);
}

void PhoneInput::paste(const message::PasteText& paste)
{
    const bool isSet = clipboardBridge.write(paste.text);
    log.info("paste from the phone: {} characters, ⌘V {}", characterCount(paste.text), paste.pasteNow);
    if (!isSet) return log.warning("the clipboard could not be set");
    if (paste.pasteNow) pendingPaste = queue->after(pasteDelay, [this] { pressPaste(); });
}

// The modifier as a key of its own: not every platform lets an event carry a modifier that nobody holds.
void PhoneInput::pressPaste()
{
    const KeyModifiers modifier = pasteboard->pasteModifier();
    const auto* key = std::ranges::find(pasteModifierKeys, modifier, &ModifierKey::modifier);
    if (key == std::end(pasteModifierKeys)) return;
    inputInjector.key(key->keyCode, true, modifier);
    inputInjector.key(keyV, true, modifier);
    inputInjector.key(keyV, false, modifier);
    inputInjector.key(key->keyCode, false, keyModifier::none);
}

} // namespace pelorin
