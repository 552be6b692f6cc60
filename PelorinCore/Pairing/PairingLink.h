#pragma once

#include "PelorinCore/Pairing/SecretBytes.h"

#include <optional>
#include <string>
#include <string_view>

namespace pelorin {

// What a phone needs to pair over the tailnet, as the text of a QR code:
// pelorin://pair?name=…&addr=…&dns=…&port=…&id=…&key=…
struct PairingLink {
    std::string hostName; // name
    std::string address; // addr: the host's tailnet address
    std::optional<std::string> dnsName; // dns: left out when absent
    std::uint16_t port = 0;
    std::string pairingID; // id: the one-time key's identity, "pair-…"
    SecretBytes key; // key: its 32-byte secret, base64url without padding
    bool operator==(const PairingLink&) const = default;

    std::string url() const; // items in the order above, percent-encoded as RFC 3986 asks
    // Nothing unless the whole link is there: scheme and host, every item but dns, a port of 16 bits and a
    // key of exactly 32 bytes. Items may come in any order; of items with the same name the first that has a
    // value counts, and unknown ones are passed over. Broken percent-encoding or text that is not UTF-8
    // anywhere in the items spoils the link.
    static std::optional<PairingLink> parse(std::string_view url);
};

} // namespace pelorin
