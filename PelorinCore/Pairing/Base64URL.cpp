#include "PelorinCore/Pairing/Base64URL.h"

#include <array>

namespace pelorin {
namespace {

struct Alphabet {
    constexpr explicit Alphabet(std::string_view newDigits) : digits(newDigits)
    {
        values.fill(invalid);
        for (std::size_t i = 0; i < digits.size(); ++i)
            values[static_cast<std::uint8_t>(digits[i])] = static_cast<std::uint8_t>(i);
    }
    static constexpr std::uint8_t invalid = 0xFF;
    std::string_view digits;
    std::array<std::uint8_t, 256> values{};
};

#define LETTERS_AND_DIGITS "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789"
constexpr Alphabet standard(LETTERS_AND_DIGITS "+/");
constexpr Alphabet urlSafe(LETTERS_AND_DIGITS "-_");
#undef LETTERS_AND_DIGITS

std::string encode(ByteView bytes, const Alphabet& alphabet)
{
    std::string text;
    text.reserve((bytes.size() + 2) / 3 * 4);
    std::uint32_t buffer = 0;
    int pending = 0; // bits in the buffer that are not written yet
    for (const std::uint8_t byte : bytes) {
        buffer = buffer << 8 | byte;
        for (pending += 8; pending >= 6;) text += alphabet.digits[buffer >> (pending -= 6) & 63];
    }
    if (pending > 0) text += alphabet.digits[buffer << (6 - pending) & 63];
    return text;
}

std::optional<Bytes> decode(std::string_view digits, const Alphabet& alphabet)
{
    Bytes bytes;
    bytes.reserve(digits.size() * 3 / 4);
    std::uint32_t buffer = 0;
    int pending = 0;
    for (const char digit : digits) {
        const std::uint8_t value = alphabet.values[static_cast<std::uint8_t>(digit)];
        if (value == Alphabet::invalid) return std::nullopt;
        buffer = buffer << 6 | value;
        for (pending += 6; pending >= 8;)
            bytes.push_back(static_cast<std::uint8_t>(buffer >> (pending -= 8)));
    }
    const bool isWhole = pending < 6 && (buffer & ((1U << pending) - 1)) == 0;
    if (!isWhole) return std::nullopt;
    return bytes;
}

std::size_t paddingFor(std::size_t digitCount)
{
    return (4 - digitCount % 4) % 4;
}

std::string_view withoutPadding(std::string_view text)
{
    return text.substr(0, text.find_last_not_of('=') + 1);
}

} // namespace

std::string base64URLEncodedString(ByteView bytes)
{
    return encode(bytes, urlSafe);
}

std::optional<Bytes> bytesFromBase64URL(std::string_view text)
{
    const std::string_view digits = withoutPadding(text);
    if (text.size() - digits.size() > paddingFor(digits.size())) return std::nullopt;
    return decode(digits, urlSafe);
}

std::string base64EncodedString(ByteView bytes)
{
    std::string text = encode(bytes, standard);
    text.append(paddingFor(text.size()), '=');
    return text;
}

std::optional<Bytes> bytesFromBase64(std::string_view text)
{
    const std::string_view digits = withoutPadding(text);
    if (text.size() - digits.size() != paddingFor(digits.size())) return std::nullopt;
    return decode(digits, standard);
}

} // namespace pelorin
