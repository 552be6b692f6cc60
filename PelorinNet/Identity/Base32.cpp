#include "PelorinNet/Identity/Base32.h"

#include <string_view>

namespace pelorin {
namespace {

constexpr std::string_view alphabet = "abcdefghijklmnopqrstuvwxyz234567";

} // namespace

std::string Base32::encode(ByteView bytes)
{
    std::string text;
    text.reserve((bytes.size() * 8 + 4) / 5);
    std::uint32_t buffer = 0;
    int pending = 0; // bits in the buffer that are not written yet
    for (const std::uint8_t byte : bytes) {
        buffer = buffer << 8 | byte;
        for (pending += 8; pending >= 5;) text += alphabet[buffer >> (pending -= 5) & 31];
    }
    if (pending > 0) text += alphabet[buffer << (5 - pending) & 31];
    return text;
}

} // namespace pelorin
