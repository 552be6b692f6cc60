#include "PelorinCore/Pairing/LinkItems.h"

#include "PelorinCore/Pairing/Base64URL.h"
#include "PelorinCore/Utf8.h"

#include <algorithm>
#include <charconv>
#include <ranges>

namespace pelorin {
namespace {

constexpr std::string_view schemeAndSlashes = "pelorin://";
constexpr std::string_view pairHost = "pair";
constexpr std::size_t secretSize = 32;

constexpr std::string_view hexDigits = "0123456789ABCDEF";

bool isUnreserved(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')
        || std::string_view("-._~").contains(c);
}

std::string percentEncoded(std::string_view text)
{
    std::string encoded;
    for (const char c : text) {
        if (isUnreserved(c)) {
            encoded += c;
        } else {
            const auto byte = static_cast<std::uint8_t>(c);
            encoded += {'%', hexDigits[byte >> 4], hexDigits[byte & 15]};
        }
    }
    return encoded;
}

std::optional<std::string> percentDecoded(std::string_view text)
{
    std::string decoded;
    for (; !text.empty(); text.remove_prefix(1)) {
        if (text.front() != '%') {
            decoded += text.front();
            continue;
        }
        std::uint8_t byte = 0;
        const char* const digits = text.data() + 1;
        if (text.size() < 3 || std::from_chars(digits, digits + 2, byte, 16).ptr != digits + 2)
            return std::nullopt;
        decoded += static_cast<char>(byte);
        text.remove_prefix(2);
    }
    if (!isUtf8(decoded)) return std::nullopt;
    return decoded;
}

// RFC 3986, 3.1 and 3.2.2: neither scheme nor host knows upper from lower case.
bool equalsIgnoringCase(std::string_view text, std::string_view lowerCase)
{
    return std::ranges::equal(text, lowerCase, {},
        [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
}

// What stands between the first question mark and the fragment of a URL that is a pairing link's so far.
std::optional<std::string_view> queryOf(std::string_view url)
{
    url = url.substr(0, url.find('#'));
    const std::size_t mark = url.find('?');
    if (mark == std::string_view::npos) return std::nullopt;
    const std::string_view query = url.substr(mark + 1);

    url = url.substr(0, mark);
    if (!equalsIgnoringCase(url.substr(0, schemeAndSlashes.size()), schemeAndSlashes)) return std::nullopt;
    url.remove_prefix(schemeAndSlashes.size());
    if (!equalsIgnoringCase(url.substr(0, url.find('/')), pairHost)) return std::nullopt;
    return query;
}

// The value of the first item of that name which has one.
std::optional<std::string> valueOf(std::string_view name, std::string_view query)
{
    for (const auto part : std::views::split(query, '&')) {
        const std::string_view item(part.begin(), part.end());
        const std::size_t equals = item.find('=');
        if (equals != std::string_view::npos && percentDecoded(item.substr(0, equals)) == name)
            return percentDecoded(item.substr(equals + 1));
    }
    return std::nullopt;
}

} // namespace

std::optional<LinkItems> LinkItems::of(std::string_view url)
{
    const auto query = queryOf(url);
    if (!query || !percentDecoded(*query)) return std::nullopt;
    return LinkItems(*query);
}

std::optional<std::string> LinkItems::text(std::string_view name) const
{
    return valueOf(name, query);
}

std::optional<SecretBytes> LinkItems::secret(std::string_view name) const
{
    auto bytes = bytesFromBase64URL(valueOf(name, query).value_or(""));
    if (!bytes) return std::nullopt;
    SecretBytes secret(std::move(*bytes));
    if (secret.view().size() != secretSize) return std::nullopt;
    return secret;
}

LinkText::LinkText() : url(std::string(schemeAndSlashes).append(pairHost)) {}

LinkText& LinkText::add(std::string_view name, std::string_view value)
{
    url += url.contains('?') ? '&' : '?';
    url.append(name) += '=';
    url += percentEncoded(value);
    return *this;
}

LinkText& LinkText::add(std::string_view name, ByteView bytes)
{
    return add(name, base64URLEncodedString(bytes));
}

} // namespace pelorin
