#include "PelorinCore/Pairing/RemotePairingLink.h"

#include "PelorinCore/Pairing/LinkItems.h"

namespace pelorin {
namespace {

constexpr std::size_t hostIDSize = 26;
constexpr std::string_view hostIDAlphabet = "abcdefghijklmnopqrstuvwxyz234567";
constexpr std::size_t maxServiceSize = 1024;

bool isHostID(std::string_view text)
{
    return text.size() == hostIDSize && text.find_first_not_of(hostIDAlphabet) == std::string_view::npos;
}

bool isService(std::string_view text)
{
    if (text.size() > maxServiceSize) return false;
    for (const std::string_view scheme : {"https://", "http://"})
        if (text.starts_with(scheme)) return text.size() > scheme.size();
    return false;
}

void addRemote(LinkText& link, const RemotePairingLink& remote)
{
    link.add("host", remote.hostID).add("fp", ByteView(remote.fingerprint));
    link.add("service", remote.service).add("code", remote.code.view());
}

} // namespace

std::string RemotePairingLink::url() const
{
    LinkText link;
    link.add("name", hostName);
    addRemote(link, *this);
    return std::move(link.url);
}

std::optional<RemotePairingLink> RemotePairingLink::parse(std::string_view url)
{
    const auto items = LinkItems::of(url);
    if (!items) return std::nullopt;
    auto name = items->text("name");
    auto hostID = items->text("host");
    const auto fingerprint = items->secret("fp");
    auto service = items->text("service");
    auto code = items->secret("code");
    if (!name || !hostID || !fingerprint || !service || !code) return std::nullopt;
    if (!isHostID(*hostID) || !isService(*service)) return std::nullopt;
    const ByteView digits = fingerprint->view();
    return RemotePairingLink{.hostName = std::move(*name),
        .hostID = std::move(*hostID),
        .fingerprint = Bytes(digits.begin(), digits.end()),
        .service = std::move(*service),
        .code = std::move(*code)};
}

std::string PairingOffer::url() const
{
    require(tailnet || remote, "an offer has a way to pair");
    if (!tailnet) return remote->url();
    LinkText link{tailnet->url()};
    if (remote) addRemote(link, *remote);
    return std::move(link.url);
}

std::optional<PairingOffer> PairingOffer::parse(std::string_view url)
{
    PairingOffer offer{PairingLink::parse(url), RemotePairingLink::parse(url)};
    if (!offer.tailnet && !offer.remote) return std::nullopt;
    return offer;
}

} // namespace pelorin
