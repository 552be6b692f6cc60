#pragma once

#include "PelorinCore/Pairing/SecretBytes.h"
#include "PelorinNet/Queue/SerialQueue.h"
#include "PelorinRendezvous/PeerMessage.h"

#include <vector>

namespace pelorin {

// Makes what lets its holder use the service's relays for twelve hours: the name carries its end, and the
// password proves that the name was made by who shares the secret with the relays. Nothing is kept.
class RelayCredentials {
public:
    // uris: "turn:host:3478", "stun:host", passed on as they are, in UTF-8. None: there are no relays.
    RelayCredentials(std::vector<std::string> newURIs, SecretBytes newSecret);

    // The "turn" object for one more user, without name and password when there are STUN servers only.
    // random: makes names unlike each other.
    std::optional<JsonText> make(WallTime now, ByteView random) const;

    static constexpr std::chrono::hours validity{12};

private:
    const std::vector<std::string> uris;
    const SecretBytes secret;
};

} // namespace pelorin
