#include "PelorinCore/Label.h"

#include "PelorinCore/Utf8.h"

namespace pelorin {
namespace {

constexpr std::size_t maxLabelBytes = 120; // longer names of devices help nobody
constexpr std::string_view replacement = "\xEF\xBF\xBD"; // U+FFFD

bool isBetween(char32_t scalar, char32_t first, char32_t last)
{
    return scalar >= first && scalar <= last;
}

// C0 and C1, to which terminals listen, line ends, and the marks and overrides of writing direction.
bool isControl(char32_t scalar)
{
    return scalar < 0x20 || isBetween(scalar, 0x7F, 0x9F) || isBetween(scalar, 0x200E, 0x200F)
        || isBetween(scalar, 0x2028, 0x202E) || isBetween(scalar, 0x2066, 0x2069);
}

std::string_view takePiece(std::string_view& text)
{
    const std::string_view before = text;
    const auto scalar = takeScalar(text);
    if (!scalar) {
        text.remove_prefix(1);
        return replacement;
    }
    return isControl(*scalar) ? " " : before.substr(0, before.size() - text.size());
}

} // namespace

std::string asLabel(std::string_view text)
{
    std::string label;
    while (!text.empty()) {
        const std::string_view piece = takePiece(text);
        if (label.size() + piece.size() > maxLabelBytes) break;
        label += piece;
    }
    return label;
}

} // namespace pelorin
