#include "PelorinCore/Utf8.h"

#include <cstdint>
#include <cstring>

namespace pelorin {

namespace {

// What a lead byte promises: how many continuation bytes follow, and the smallest scalar that may need them.
struct Lead {
    int continuations = 0;
    char32_t bits = 0;
    char32_t smallest = 0;
};

std::optional<Lead> parseLead(std::uint8_t byte)
{
    if (byte < 0x80) return Lead{0, byte, 0};
    if ((byte & 0xE0) == 0xC0) return Lead{1, byte & 0x1FU, 0x80};
    if ((byte & 0xF0) == 0xE0) return Lead{2, byte & 0x0FU, 0x800};
    if ((byte & 0xF8) == 0xF0) return Lead{3, byte & 0x07U, 0x10000};
    return std::nullopt;
}

bool isScalar(char32_t value)
{
    const bool isSurrogate = value >= 0xD800 && value <= 0xDFFF;
    return value <= 0x10FFFF && !isSurrogate;
}

// Most text is ASCII, so it is passed over eight bytes at a time.
void skipAscii(std::string_view& text)
{
    constexpr std::uint64_t topBits = 0x8080808080808080;
    std::uint64_t word = 0;
    while (text.size() >= sizeof word) {
        std::memcpy(&word, text.data(), sizeof word);
        if ((word & topBits) != 0) return;
        text.remove_prefix(sizeof word);
    }
}

} // namespace

std::optional<char32_t> takeScalar(std::string_view& text)
{
    if (text.empty()) return std::nullopt;
    const auto lead = parseLead(static_cast<std::uint8_t>(text[0]));
    if (!lead || text.size() <= static_cast<std::size_t>(lead->continuations)) return std::nullopt;
    char32_t scalar = lead->bits;
    for (int i = 1; i <= lead->continuations; ++i) {
        const auto byte = static_cast<std::uint8_t>(text[static_cast<std::size_t>(i)]);
        if ((byte & 0xC0) != 0x80) return std::nullopt;
        scalar = scalar << 6 | (byte & 0x3FU);
    }
    if (scalar < lead->smallest || !isScalar(scalar)) return std::nullopt;
    text.remove_prefix(static_cast<std::size_t>(lead->continuations) + 1);
    return scalar;
}

bool isUtf8(std::string_view text)
{
    for (skipAscii(text); !text.empty(); skipAscii(text))
        if (!takeScalar(text)) return false;
    return true;
}

} // namespace pelorin
