#include "PelorinCore/Access/IPAddress.h"

#include <algorithm>
#include <charconv>

namespace pelorin {
namespace {

using Groups = std::array<std::uint16_t, 8>;

constexpr std::array<std::uint8_t, 12> ipv4Mapping{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};
constexpr int mappingBits = 96;

// The number that is all of text, of at most maxDigits digits. Nothing for signs, spaces and the like.
std::optional<unsigned> number(std::string_view text, int base, std::size_t maxDigits)
{
    unsigned value = 0;
    if (text.empty() || text.size() > maxDigits) return std::nullopt;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return value;
}

std::string_view takeUpTo(std::string_view& text, char separator)
{
    const auto part = text.substr(0, text.find(separator));
    text.remove_prefix(std::min(part.size() + 1, text.size()));
    return part;
}

std::optional<std::array<std::uint8_t, 4>> dottedQuad(std::string_view text)
{
    if (std::ranges::count(text, '.') != 3 || text.ends_with('.')) return std::nullopt;
    std::array<std::uint8_t, 4> octets{};
    for (auto& octet : octets) {
        const auto digits = takeUpTo(text, '.');
        const auto value = number(digits, 10, 3);
        // Some readers take a leading zero for octal; we take neither side.
        if (!value || *value > 255 || (digits.size() > 1 && digits[0] == '0')) return std::nullopt;
        octet = static_cast<std::uint8_t>(*value);
    }
    return octets;
}

// A run of groups without "::", the last one possibly a dotted quad; how many groups it was.
std::optional<std::size_t> readGroups(std::string_view text, Groups& groups)
{
    if (text.empty()) return 0;
    if (text.ends_with(':')) return std::nullopt;
    std::size_t count = 0;
    while (!text.empty()) {
        const auto part = takeUpTo(text, ':');
        if (part.find('.') != part.npos) {
            const auto quad = dottedQuad(part);
            if (!quad || !text.empty() || count + 2 > groups.size()) return std::nullopt;
            groups[count++] = static_cast<std::uint16_t>((*quad)[0] << 8 | (*quad)[1]);
            groups[count++] = static_cast<std::uint16_t>((*quad)[2] << 8 | (*quad)[3]);
            continue;
        }
        const auto group = number(part, 16, 4);
        if (!group || count == groups.size()) return std::nullopt;
        groups[count++] = static_cast<std::uint16_t>(*group);
    }
    return count;
}

std::optional<Groups> ipv6Groups(std::string_view text)
{
    Groups groups{};
    const auto gap = text.find("::");
    if (gap == text.npos)
        return readGroups(text, groups) == groups.size() ? std::optional(groups) : std::nullopt;

    const auto before = text.substr(0, gap);
    Groups tail{};
    const auto tailCount = readGroups(text.substr(gap + 2), tail);
    const auto headCount = before.find('.') == before.npos ? readGroups(before, groups) : std::nullopt;
    if (!headCount || !tailCount || *headCount + *tailCount >= groups.size()) return std::nullopt;
    std::copy_n(tail.begin(), *tailCount, groups.end() - static_cast<std::ptrdiff_t>(*tailCount));
    return groups;
}

// The longest run of two or more zero groups, the first of equals; what "::" stands for.
std::pair<std::size_t, std::size_t> longestZeroRun(const Groups& groups)
{
    std::size_t bestStart = 0, bestLength = 1;
    for (std::size_t start = 0; start < groups.size(); ++start) {
        std::size_t length = 0;
        while (start + length < groups.size() && groups[start + length] == 0) ++length;
        if (length > bestLength) bestStart = start, bestLength = length;
    }
    return bestLength > 1 ? std::pair(bestStart, bestLength) : std::pair(groups.size(), std::size_t{0});
}

std::string hexadecimal(unsigned value)
{
    std::array<char, 8> digits{};
    const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), value, 16).ptr;
    return {digits.data(), end};
}

} // namespace

std::optional<IPAddress> IPAddress::parseIPv4(std::string_view text)
{
    const auto quad = dottedQuad(text);
    if (!quad) return std::nullopt;
    std::array<std::uint8_t, 16> bytes{};
    std::ranges::copy(ipv4Mapping, bytes.begin());
    std::ranges::copy(*quad, bytes.begin() + ipv4Mapping.size());
    return IPAddress(bytes);
}

std::optional<IPAddress> IPAddress::parse(std::string_view text)
{
    if (text.find(':') == text.npos) return parseIPv4(text);
    const auto groups = ipv6Groups(text);
    if (!groups) return std::nullopt;
    std::array<std::uint8_t, 16> bytes{};
    for (std::size_t i = 0; i < groups->size(); ++i) {
        bytes[2 * i] = static_cast<std::uint8_t>((*groups)[i] >> 8);
        bytes[2 * i + 1] = static_cast<std::uint8_t>((*groups)[i]);
    }
    return IPAddress(bytes);
}

IPAddress IPAddress::fromIPv6(const std::array<std::uint8_t, 16>& bytes)
{
    return IPAddress(bytes);
}

bool IPAddress::isIPv4() const
{
    return std::equal(ipv4Mapping.begin(), ipv4Mapping.end(), mapped.begin());
}

bool IPAddress::isWithin(const IPAddress& prefix, int bits) const
{
    return isIPv4() == prefix.isIPv4() && masked(bits) == prefix.masked(bits);
}

IPAddress IPAddress::masked(int bits) const
{
    const int kept = isIPv4() ? mappingBits + bits : bits;
    auto result = mapped;
    for (int i = 0; i < static_cast<int>(result.size()); ++i) {
        const int keptHere = std::clamp(kept - 8 * i, 0, 8);
        result[static_cast<std::size_t>(i)] &= static_cast<std::uint8_t>(0xFF00 >> keptHere);
    }
    return IPAddress(result);
}

std::string IPAddress::text() const
{
    if (isIPv4())
        return std::to_string(mapped[12]) + '.' + std::to_string(mapped[13]) + '.'
            + std::to_string(mapped[14]) + '.' + std::to_string(mapped[15]);

    Groups groups{};
    for (std::size_t i = 0; i < groups.size(); ++i)
        groups[i] = static_cast<std::uint16_t>(mapped[2 * i] << 8 | mapped[2 * i + 1]);
    const auto [gap, gapLength] = longestZeroRun(groups);
    std::string result;
    for (std::size_t i = 0; i < groups.size(); ++i) {
        if (i == gap) {
            result += "::";
            i += gapLength - 1;
            continue;
        }
        if (!result.empty() && !result.ends_with(':')) result += ':';
        result += hexadecimal(groups[i]);
    }
    return result;
}

} // namespace pelorin
