#include "PelorinViewer/ViewerOptions.h"

#include <array>
#include <charconv>

namespace pelorin {

namespace {

constexpr std::uint32_t largestSide = 16384;
constexpr float largestScale = 8;

template <class Number>
std::optional<Number> numberIn(std::string_view text)
{
    Number number{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc{} || end != text.data() + text.size()) return std::nullopt;
    return number;
}

} // namespace

std::optional<HostAddress> HostAddress::parse(std::string_view text)
{
    const auto colon = text.rfind(':');
    if (colon == std::string_view::npos) return std::nullopt;
    const auto port = numberIn<std::uint16_t>(text.substr(colon + 1));
    std::string_view host = text.substr(0, colon);
    if (host.starts_with('[') && host.ends_with(']'))
        host = host.substr(1, host.size() - 2);
    else if (host.find(':') != std::string_view::npos)
        return std::nullopt; // which colon ends it is a guess
    if (!port || *port == 0 || host.empty() || host.find('/') != std::string_view::npos) return std::nullopt;
    return HostAddress{std::string(host), *port};
}

std::optional<ViewerTarget> parseTarget(std::string_view text)
{
    if (text.contains("://")) {
        auto offer = PairingOffer::parse(text);
        return offer ? std::optional<ViewerTarget>(std::move(*offer)) : std::nullopt;
    }
    if (auto address = HostAddress::parse(text)) return std::move(*address);
    return PairedHostName{std::string(text)};
}

std::optional<Viewport> parseViewport(std::string_view text)
{
    const auto at = text.find('@');
    const auto scale = at == std::string_view::npos ? 1.0F : numberIn<float>(text.substr(at + 1)).value_or(0);
    const std::string_view size = text.substr(0, at);
    const auto cross = size.find('x');
    if (cross == std::string_view::npos) return std::nullopt;
    const auto width = numberIn<std::uint32_t>(size.substr(0, cross));
    const auto height = numberIn<std::uint32_t>(size.substr(cross + 1));
    if (!width || !height || *width == 0 || *height == 0) return std::nullopt;
    if (*width > largestSide || *height > largestSide) return std::nullopt;
    if (!(scale > 0 && scale <= largestScale)) return std::nullopt;
    return Viewport{*width, *height, scale};
}

std::optional<PictureRect> parseRect(std::string_view text)
{
    std::array<int, 4> numbers{};
    for (std::size_t i = 0; i < numbers.size(); ++i) {
        const auto comma = text.find(',');
        if ((comma == std::string_view::npos) != (i + 1 == numbers.size())) return std::nullopt;
        const auto number = numberIn<int>(text.substr(0, comma));
        if (!number || *number < 0 || *number > static_cast<int>(largestSide)) return std::nullopt;
        numbers[i] = *number;
        text.remove_prefix(comma == std::string_view::npos ? text.size() : comma + 1);
    }
    if (numbers[2] == 0 || numbers[3] == 0) return std::nullopt;
    return PictureRect{numbers[0], numbers[1], numbers[2], numbers[3]};
}

} // namespace pelorin
