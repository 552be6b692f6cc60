#include "PelorinViewer/Script.h"

#include "PelorinCore/Keys/KeyMapping.h"
#include "PelorinCore/Keys/KeyShortcut.h"
#include "PelorinCore/Keys/MacKey.h"
#include "PelorinCore/Utf8.h"
#include "PelorinViewer/ViewerOptions.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <fmt/format.h>
#include <optional>
#include <utility>

namespace pelorin {

namespace {

using namespace std::chrono_literals;

constexpr std::string_view blanks = " \t\r";

// Farther than any desktop is wide, so that the pointer ends in the top left corner from wherever it was.
constexpr float toTheCorner = -32768;

constexpr int mostClicks = 3;

constexpr Duration longestTime = 24h;

std::string_view trimmed(std::string_view text)
{
    const auto first = text.find_first_not_of(blanks);
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

// Takes the first word off text, and the blanks around it.
std::string_view takeWord(std::string_view& text)
{
    text = trimmed(text);
    const auto end = std::min(text.find_first_of(blanks), text.size());
    const auto word = text.substr(0, end);
    text = trimmed(text.substr(end));
    return word;
}

std::optional<double> numberIn(std::string_view text)
{
    double number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc{} || end != text.data() + text.size() || !std::isfinite(number))
        return std::nullopt;
    return number;
}

// "200ms", "2s", or a bare number of unitMs milliseconds.
std::optional<Duration> durationIn(std::string_view text, double unitMs)
{
    if (text.ends_with("ms")) {
        unitMs = 1;
        text.remove_suffix(2);
    } else if (text.ends_with("s")) {
        unitMs = 1000;
        text.remove_suffix(1);
    }
    const auto number = numberIn(text);
    if (!number || *number < 0) return std::nullopt;
    const std::chrono::duration<double, std::milli> time(*number * unitMs);
    if (time > longestTime) return std::nullopt;
    return std::chrono::duration_cast<Duration>(time);
}

// "\n", "\t" and "\\" stand for a line break, a tab and a backslash.
std::string unescaped(std::string_view text)
{
    std::string result;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char next = text[i] == '\\' && i + 1 < text.size() ? text[i + 1] : '\0';
        const auto escape = std::string_view("nt\\").find(next);
        if (next == '\0' || escape == std::string_view::npos) {
            result += text[i];
            continue;
        }
        result += "\n\t\\"[escape];
        ++i;
    }
    return result;
}

std::optional<MouseButton> buttonNamed(std::string_view name)
{
    if (name == "left") return MouseButton::left;
    if (name == "right") return MouseButton::right;
    if (name == "middle") return MouseButton::middle;
    return std::nullopt;
}

std::optional<std::uint16_t> modifierKeyNamed(std::string_view name)
{
    if (name == "shift") return MacKey::shift;
    if (name == "ctrl" || name == "control") return MacKey::control;
    if (name == "opt" || name == "option" || name == "alt") return MacKey::option;
    if (name == "cmd" || name == "command") return MacKey::command;
    if (name == "fn") return MacKey::function;
    return std::nullopt;
}

// One line after another; each command's arguments are parsed by the method of its name.
class LineParser {
public:
    explicit LineParser(std::string_view newRest) : rest(newRest) {}

    using Action = decltype(ScriptStep::action);
    Result<Action, std::string> parse()
    {
        const std::string_view command = takeWord(rest);
        struct Command {
            std::string_view name;
            Result<Action, std::string> (LineParser::*parse)();
        };
        static constexpr Command commands[] = {{"wait", &LineParser::wait}, {"move", &LineParser::move},
            {"moveto", &LineParser::moveTo}, {"click", &LineParser::click}, {"down", &LineParser::buttonDown},
            {"up", &LineParser::buttonUp}, {"scroll", &LineParser::scroll}, {"key", &LineParser::key},
            {"keydown", &LineParser::keyDown}, {"keyup", &LineParser::keyUp},
            {"text", &LineParser::typedText}, {"paste", &LineParser::paste}, {"expect", &LineParser::expect},
            {"screenshot", &LineParser::screenshot}, {"viewport", &LineParser::viewport},
            {"quit", &LineParser::quit}};
        const auto found = std::ranges::find(commands, command, &Command::name);
        if (found == std::end(commands)) return failure("unknown command \"{}\"", command);
        auto action = (this->*found->parse)();
        if (action && !rest.empty()) return failure("\"{}\" is too much", rest);
        return action;
    }

private:
    template <class... Args>
    static std::unexpected<std::string> failure(fmt::format_string<Args...> format, Args&&... args)
    {
        return std::unexpected(fmt::format(format, std::forward<Args>(args)...));
    }
    static Action sending(std::vector<Message> messages) { return scriptStep::Send{std::move(messages)}; }

    Result<Action, std::string> wait()
    {
        const auto time = durationIn(takeWord(rest), 1);
        if (!time) return failure("wait takes milliseconds");
        return scriptStep::Wait{*time};
    }

    std::optional<std::pair<float, float>> takePair()
    {
        const auto x = numberIn(takeWord(rest));
        const auto y = numberIn(takeWord(rest));
        if (!x || !y) return std::nullopt;
        return std::pair{static_cast<float>(*x), static_cast<float>(*y)};
    }

    Result<Action, std::string> move()
    {
        const auto pair = takePair();
        if (!pair) return failure("move takes two distances in points");
        return sending({message::MouseMove{pair->first, pair->second}});
    }

    // Moves are relative and confined to the display, so the way leads through its corner.
    Result<Action, std::string> moveTo()
    {
        const auto pair = takePair();
        if (!pair) return failure("moveto takes a position in points");
        return sending(
            {message::MouseMove{toTheCorner, toTheCorner}, message::MouseMove{pair->first, pair->second}});
    }

    Result<Action, std::string> click()
    {
        const auto button = buttonNamed(takeWord(rest));
        if (!button) return failure("click takes left, right or middle");
        int count = 1;
        if (!rest.empty()) {
            const auto number = numberIn(takeWord(rest));
            if (!number || *number < 1 || *number > mostClicks || *number != std::floor(*number))
                return failure("a click count is 1, 2 or 3");
            count = static_cast<int>(*number);
        }
        scriptStep::Send send;
        for (int i = 1; i <= count; ++i)
            for (const bool isDown : {true, false})
                send.messages.push_back(
                    message::MouseButtonChange{*button, isDown, static_cast<std::uint8_t>(i)});
        return send;
    }

    Result<Action, std::string> buttonDown() { return buttonChange(true); }
    Result<Action, std::string> buttonUp() { return buttonChange(false); }
    Result<Action, std::string> buttonChange(bool isDown)
    {
        const auto button = buttonNamed(takeWord(rest));
        if (!button) return failure("down and up take left, right or middle");
        return sending({message::MouseButtonChange{*button, isDown, 1}});
    }

    Result<Action, std::string> scroll()
    {
        const auto pair = takePair();
        if (!pair) return failure("scroll takes two distances in pixels");
        return sending({message::Scroll{0, 0, ScrollPhase::began, MomentumPhase::none},
            message::Scroll{pair->first, pair->second, ScrollPhase::changed, MomentumPhase::none},
            message::Scroll{0, 0, ScrollPhase::ended, MomentumPhase::none}});
    }

    Result<Action, std::string> key()
    {
        const auto shortcut = KeyShortcut::parse(takeAll());
        if (!shortcut) return failure("key takes a combination such as cmd+shift+4");
        return sending({message::Key{shortcut->keyCode, true, shortcut->modifiers},
            message::Key{shortcut->keyCode, false, shortcut->modifiers}});
    }

    Result<Action, std::string> keyDown() { return keyChange(true); }
    Result<Action, std::string> keyUp() { return keyChange(false); }
    Result<Action, std::string> keyChange(bool isDown)
    {
        const std::string_view name = takeAll();
        if (const auto modifierKey = modifierKeyNamed(name))
            return sending({message::Key{
                *modifierKey, isDown, isDown ? *KeyMapping::modifier(*modifierKey) : keyModifier::none}});
        const auto shortcut = KeyShortcut::parse(name);
        if (!shortcut) return failure("keydown and keyup take a key, a modifier or a combination");
        return sending({message::Key{shortcut->keyCode, isDown, shortcut->modifiers}});
    }

    Result<Action, std::string> typedText() { return sending({message::Text{unescaped(takeAll())}}); }
    Result<Action, std::string> paste() { return sending({message::PasteText{unescaped(takeAll()), true}}); }

    Result<Action, std::string> expect()
    {
        const auto what = takeWord(rest);
        if (what == "change") {
            const auto within = durationIn(takeWord(rest), 1000);
            if (!within) return failure("expect change takes seconds");
            return scriptStep::ExpectChange{*within};
        }
        if (what == "still") {
            const auto time = durationIn(takeWord(rest), 1);
            if (!time) return failure("expect still takes milliseconds");
            return scriptStep::ExpectStill{*time};
        }
        return failure("expect takes change or still");
    }

    Result<Action, std::string> screenshot()
    {
        if (rest.empty()) return failure("screenshot takes a file");
        return scriptStep::Screenshot{std::string(takeAll())};
    }

    Result<Action, std::string> viewport()
    {
        const auto size = parseViewport(takeWord(rest));
        if (!size) return failure("viewport takes a size such as 1280x720 or 1170x2532@3");
        return sending({message::SetViewport{*size}});
    }

    Result<Action, std::string> quit() { return scriptStep::Quit{}; }

    std::string_view takeAll() { return std::exchange(rest, {}); }

    std::string_view rest;
};

} // namespace

Result<std::vector<ScriptStep>, ScriptError> parseScript(std::string_view text)
{
    if (!isUtf8(text)) return std::unexpected(ScriptError{0, "the script is not UTF-8"});
    std::vector<ScriptStep> steps;
    for (int number = 1; !text.empty(); ++number) {
        const auto end = std::min(text.find('\n'), text.size());
        const std::string_view line = trimmed(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
        if (line.empty() || line.starts_with('#')) continue;
        auto action = LineParser(line).parse();
        if (!action) return std::unexpected(ScriptError{number, action.error()});
        steps.push_back({number, std::move(*action)});
    }
    return steps;
}

} // namespace pelorin
