#include "PelorinHost/Session/HelloExchange.h"

#include <algorithm>

namespace pelorin {
namespace {

constexpr std::size_t maxLabelBytes = 120; // longer names of devices help nobody

bool isContinuation(char byte)
{
    return (static_cast<unsigned char>(byte) & 0xC0) == 0x80;
}

bool isControl(char byte)
{
    return static_cast<unsigned char>(byte) < 0x20 || byte == 0x7F;
}

} // namespace

std::optional<SessionEnd> refusalOf(const message::Hello& hello, Permissions& permissions)
{
    if (hello.version != protocolVersion) return SessionEnd::versionMismatch(hello.version);
    if (const auto answer = permissions.mayCapture(); !answer.isGranted)
        return SessionEnd::permissionsMissing(answer.missing);
    if (const auto answer = permissions.mayPostEvents(); !answer.isGranted)
        return SessionEnd::permissionsMissing(answer.missing);
    return std::nullopt;
}

std::string asLabel(std::string_view text)
{
    std::size_t length = std::min(text.size(), maxLabelBytes);
    while (length > 0 && length < text.size() && isContinuation(text[length])) --length;
    std::string label(text.substr(0, length));
    std::ranges::replace_if(label, isControl, ' ');
    return label;
}

} // namespace pelorin
