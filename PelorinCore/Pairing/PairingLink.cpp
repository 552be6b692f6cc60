#include "PelorinCore/Pairing/PairingLink.h"

#include "PelorinCore/Pairing/Base64URL.h"
#include "PelorinCore/Utf8.h"

#include <algorithm>
#include <charconv>
#include <ranges>

namespace pelorin {
namespace {

constexpr std::string_view schemeAndSlashes = "pelorin://";
constexpr std::string_view pairHost = "pair";
constexpr std::size_t keySize = 32;

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

std::optional<std::uint16_t> portFrom(const std::string& text)
{
    std::uint16_t port = 0;
    const char* const end = text.data() + text.size();
    if (const auto [at, error] = std::from_chars(text.data(), end, port); at != end || error != std::errc{})
        return std::nullopt;
    return port;
}

std::optional<SecretBytes> keyFrom(std::string_view text)
{
    auto bytes = bytesFromBase64URL(text);
    if (!bytes) return std::nullopt;
    SecretBytes key(std::move(*bytes));
    if (key.view().size() != keySize) return std::nullopt;
    return key;
}

} // namespace

std::string PairingLink::url() const
{
    std::string url(schemeAndSlashes);
    url.append(pairHost);
    char separator = '?';
    const auto add = [&](std::string_view name, std::string_view value) {
        url += std::exchange(separator, '&');
        url.append(name) += '=';
        url += percentEncoded(value);
    };
    add("name", hostName);
    add("addr", address);
    if (dnsName) add("dns", *dnsName);
    add("port", std::to_string(port));
    add("id", pairingID);
    add("key", base64URLEncodedString(key.view()));
    return url;
}

std::optional<PairingLink> PairingLink::parse(std::string_view url)
{
    const auto query = queryOf(url);
    if (!query || !percentDecoded(*query)) return std::nullopt;
    auto name = valueOf("name", *query);
    auto address = valueOf("addr", *query);
    auto id = valueOf("id", *query);
    const auto port = portFrom(valueOf("port", *query).value_or(""));
    auto key = keyFrom(valueOf("key", *query).value_or(""));
    if (!name || !address || !id || !port || !key) return std::nullopt;
    return PairingLink{.hostName = std::move(*name),
        .address = std::move(*address),
        .dnsName = valueOf("dns", *query),
        .port = *port,
        .pairingID = std::move(*id),
        .key = std::move(*key)};
}

} // namespace pelorin
