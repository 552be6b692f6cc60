// Hostile answers of the Tailscale tool, and hostile texts for addresses, which must be read as the system
// reads them and written so that they can be read again.

#include "PelorinCore/Access/Tailnet.h"
#include "PelorinCore/Access/TailscaleStatus.h"

#include <arpa/inet.h>

namespace pelorin {
namespace {

void checkWhois(std::string_view text)
{
    const auto whois = TailscaleWhois::parse(text);
    if (whois)
        require(!whois->loginName.empty(), "a whois names a user");
    else
        require(!whois.error().description.empty(), "a refusal has a reason");

    const auto status = TailscaleStatus::parse(text);
    if (!status) return;
    for (const auto& peer : status->peers)
        for (const auto& address : peer.tailscaleIPs) (void)status->curAddrOf(address);
}

void checkAddress(const std::string& text)
{
    const auto address = IPAddress::parse(text);
    if (text.find('\0') != text.npos) return require(!address, "nothing stands behind an address");
    std::array<std::uint8_t, 16> bytes{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};
    const bool isKnown = inet_pton(AF_INET, text.c_str(), &bytes[12]) == 1
        || inet_pton(AF_INET6, text.c_str(), bytes.data()) == 1;
    require(address.has_value() == isKnown, "we read what the system reads");
    if (!address) return;
    require(address->bytes() == bytes, "and see the same numbers");
    require(IPAddress::parse(address->text()) == address, "an address survives its text");
    require(Tailnet::isTailnetAddress(text) == Tailnet::contains(*address), "a spelling changes nothing");
}

} // namespace
} // namespace pelorin

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data), size);
    pelorin::checkWhois(text);
    pelorin::checkAddress(text);
    return 0;
}
