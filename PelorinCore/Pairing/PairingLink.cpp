#include "PelorinCore/Pairing/PairingLink.h"

#include "PelorinCore/Pairing/LinkItems.h"

#include <charconv>

namespace pelorin {
namespace {

std::optional<std::uint16_t> portFrom(const std::string& text)
{
    std::uint16_t port = 0;
    const char* const end = text.data() + text.size();
    if (const auto [at, error] = std::from_chars(text.data(), end, port); at != end || error != std::errc{})
        return std::nullopt;
    return port;
}

} // namespace

std::string PairingLink::url() const
{
    LinkText link;
    link.add("name", hostName).add("addr", address);
    if (dnsName) link.add("dns", *dnsName);
    link.add("port", std::to_string(port)).add("id", pairingID).add("key", key.view());
    return std::move(link.url);
}

std::optional<PairingLink> PairingLink::parse(std::string_view url)
{
    const auto items = LinkItems::of(url);
    if (!items) return std::nullopt;
    auto name = items->text("name");
    auto address = items->text("addr");
    auto id = items->text("id");
    const auto port = portFrom(items->text("port").value_or(""));
    auto key = items->secret("key");
    if (!name || !address || !id || !port || !key) return std::nullopt;
    return PairingLink{.hostName = std::move(*name),
        .address = std::move(*address),
        .dnsName = items->text("dns"),
        .port = *port,
        .pairingID = std::move(*id),
        .key = std::move(*key)};
}

} // namespace pelorin
