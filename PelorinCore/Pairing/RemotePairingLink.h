#pragma once

#include "PelorinCore/Pairing/PairingLink.h"

namespace pelorin {

// What a phone needs to pair through a rendezvous service, from wherever it is:
// pelorin://pair?name=…&host=…&fp=…&service=…&code=…
struct RemotePairingLink {
    std::string hostName; // name
    std::string hostID; // host: the host's name at the service, 26 characters of a to z and 2 to 7
    Bytes
        fingerprint; // fp: of the host's key, 32 bytes in base64url; whom to trust, whatever the service says
    std::string service; // service: its URL, https, or http where nobody else listens
    SecretBytes code; // code: the one-time secret, 32 bytes in base64url
    bool operator==(const RemotePairingLink&) const = default;

    std::string url() const;
    // As strict as PairingLink::parse: every item is there and of that form.
    static std::optional<RemotePairingLink> parse(std::string_view url);
};

// The ways to pair that one link offers, one at least. A link with both has the items of PairingLink, then
// those of RemotePairingLink but the name, so that whoever knows one way alone finds it.
struct PairingOffer {
    std::optional<PairingLink> tailnet;
    std::optional<RemotePairingLink> remote;
    bool operator==(const PairingOffer&) const = default;

    const std::string& hostName() const { return tailnet ? tailnet->hostName : remote->hostName; }
    std::string url() const;
    static std::optional<PairingOffer> parse(std::string_view url); // nothing when no way is whole
};

} // namespace pelorin
