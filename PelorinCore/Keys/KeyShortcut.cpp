#include "PelorinCore/Keys/KeyShortcut.h"

#include "PelorinCore/Keys/KeyMapping.h"
#include "PelorinCore/Keys/MacKey.h"
#include "PelorinCore/Utf8.h"

#include <algorithm>

namespace pelorin {

namespace {

constexpr std::string_view defaultList
    = "切换 App=cmd+tab\n聚焦搜索=cmd+space\n调度中心=ctrl+up\n显示桌面=f11\n"
      "区域截图=cmd+shift+4\n切换输入法=ctrl+space\n关闭窗口=cmd+w\n"
      "退出 App=cmd+q\n锁定屏幕=ctrl+cmd+q";

struct NamedModifier {
    std::string_view name;
    KeyModifiers modifier;
};
constexpr NamedModifier namedModifiers[]{{"cmd", keyModifier::command}, {"command", keyModifier::command},
    {"⌘", keyModifier::command}, {"shift", keyModifier::shift}, {"⇧", keyModifier::shift},
    {"opt", keyModifier::option}, {"option", keyModifier::option}, {"alt", keyModifier::option},
    {"⌥", keyModifier::option}, {"ctrl", keyModifier::control}, {"control", keyModifier::control},
    {"⌃", keyModifier::control}, {"fn", keyModifier::function}};

struct NamedKey {
    std::string_view name;
    std::uint16_t keyCode;
};
constexpr NamedKey namedKeys[]{{"tab", MacKey::tab}, {"space", MacKey::space}, {"return", MacKey::returnKey},
    {"enter", MacKey::returnKey}, {"esc", MacKey::escape}, {"escape", MacKey::escape},
    {"delete", MacKey::backspace}, {"backspace", MacKey::backspace}, {"forwarddelete", MacKey::forwardDelete},
    {"up", MacKey::up}, {"down", MacKey::down}, {"left", MacKey::left}, {"right", MacKey::right},
    {"home", MacKey::home}, {"end", MacKey::end}, {"pageup", MacKey::pageUp}, {"pagedown", MacKey::pageDown},
    {"f1", MacKey::f1}, {"f2", MacKey::f2}, {"f3", MacKey::f3}, {"f4", MacKey::f4}, {"f5", MacKey::f5},
    {"f6", MacKey::f6}, {"f7", MacKey::f7}, {"f8", MacKey::f8}, {"f9", MacKey::f9}, {"f10", MacKey::f10},
    {"f11", MacKey::f11}, {"f12", MacKey::f12}, {"f13", MacKey::f13}, {"f14", MacKey::f14},
    {"f15", MacKey::f15}, {"f16", MacKey::f16}, {"f17", MacKey::f17}, {"f18", MacKey::f18},
    {"f19", MacKey::f19}, {"f20", MacKey::f20}};

std::string_view trimmed(std::string_view text)
{
    constexpr std::string_view blanks = " \t";
    const std::size_t first = text.find_first_not_of(blanks);
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

// The names of the tables are ASCII or have no case; anything else may stay as it is and match nothing.
std::string lowerCased(std::string_view text)
{
    std::string lower;
    for (const char character : text)
        lower += static_cast<char>(KeyMapping::lowerCased(static_cast<std::uint8_t>(character)));
    return lower;
}

std::vector<std::string_view> piecesOf(std::string_view combination)
{
    std::vector<std::string_view> pieces;
    while (!combination.empty()) {
        const std::size_t size = std::min(combination.find('+'), combination.size());
        if (size > 0) pieces.push_back(trimmed(combination.substr(0, size)));
        combination.remove_prefix(std::min(size + 1, combination.size()));
    }
    return pieces;
}

std::optional<KeyModifiers> modifierNamed(std::string_view name)
{
    const auto found = std::ranges::find(namedModifiers, lowerCased(name), &NamedModifier::name);
    if (found == std::end(namedModifiers)) return std::nullopt;
    return found->modifier;
}

std::optional<KeyMapping::TypedKey> keyOf(std::string_view piece)
{
    const auto named = std::ranges::find(namedKeys, lowerCased(piece), &NamedKey::name);
    if (named != std::end(namedKeys)) return KeyMapping::TypedKey{named->keyCode, false};
    const auto character = takeScalar(piece);
    if (!character || !piece.empty()) return std::nullopt;
    return KeyMapping::keyCode(*character);
}

// The size of the line break that text begins with, 0 if it begins with none.
std::size_t lineBreakSize(std::string_view text)
{
    for (const std::string_view mark : {"\n", "\v", "\f", "\r", "\u0085", "\u2028", "\u2029"})
        if (text.starts_with(mark)) return mark.size();
    return 0;
}

std::vector<std::string_view> linesOf(std::string_view text)
{
    std::vector<std::string_view> lines;
    std::size_t start = 0;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t breakSize = lineBreakSize(text.substr(at));
        if (breakSize > 0) lines.push_back(text.substr(start, at - start));
        at += std::max<std::size_t>(breakSize, 1);
        if (breakSize > 0) start = at;
    }
    lines.push_back(text.substr(start));
    return lines;
}

std::optional<KeyShortcut> parseLine(std::string_view line)
{
    const std::size_t equals = line.find('=');
    if (equals == std::string_view::npos) return std::nullopt;
    const std::string_view title = trimmed(line.substr(0, equals));
    if (title.empty()) return std::nullopt;
    return KeyShortcut::parse(trimmed(line.substr(equals + 1)), std::string{title});
}

} // namespace

std::optional<KeyShortcut> KeyShortcut::parse(std::string_view combination, std::optional<std::string> title)
{
    std::vector<std::string_view> pieces = piecesOf(combination);
    if (pieces.empty()) return std::nullopt;
    const auto key = keyOf(pieces.back());
    if (!key) return std::nullopt;
    pieces.pop_back();

    KeyModifiers modifiers = key->needsShift ? keyModifier::shift : keyModifier::none;
    for (const std::string_view name : pieces) {
        const auto modifier = modifierNamed(name);
        if (!modifier) return std::nullopt;
        modifiers |= *modifier;
    }
    return KeyShortcut{title ? *std::move(title) : std::string{combination}, key->keyCode, modifiers};
}

std::vector<KeyShortcut> KeyShortcut::parseList(std::string_view text)
{
    std::vector<KeyShortcut> shortcuts;
    for (const std::string_view line : linesOf(text))
        if (auto shortcut = parseLine(line)) shortcuts.push_back(*std::move(shortcut));
    return shortcuts;
}

std::vector<KeyShortcut> KeyShortcut::defaults()
{
    return parseList(defaultList);
}

} // namespace pelorin
