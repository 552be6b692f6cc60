#pragma once

#include "PelorinNet/Identity/DeviceIdentity.h"
#include "PelorinNet/Path/PathSetup.h"

namespace pelorin {

// What a phone asks of a host by way of the rendezvous service: a path, signed by the phone's key so that
// nobody on the way can make one up, change one, or use one twice. The host alone judges it.
struct ConnectRequest {
    // Of a phone that is to become a paired one.
    struct Pairing {
        std::string deviceName;
        Bytes clientKey; // X9.63, 65 bytes; it has signed the request
        Bytes proof; // that it knows the link's code
    };

    Bytes clientKeyHash; // the fingerprint of the phone's key, 32 bytes
    std::int64_t timestamp = 0; // of the phone's clock, seconds since 1970
    std::string nonce;
    PathDescription remote;
    Bytes signature; // DER
    std::optional<Pairing> pairing;

    // Nothing when a part is missing or malformed. Texts that are signed side by side are 1 to 128 printable
    // characters without the "|" between them, so that no other request has the same signed text.
    static std::optional<ConnectRequest> parse(const nlohmann::json& request);

    // As parse reads it.
    nlohmann::json toJSON() const;
    // By the phone itself; the last step, once everything else is set.
    Result<void, NetError> sign(const DeviceIdentity& phone, const std::string& hostID);

    std::string signedText(const std::string& hostID) const;
    bool isSignedBy(ByteView publicKey, const std::string& hostID) const;
    bool isTimely(WallTime now) const; // within two minutes, clocks being what they are
    // What the proof of a pairing is bound to, besides the phone's key.
    std::string pairingContext(const std::string& hostID) const;
};

// The nonces of requests that were granted, for as long as they could be used again. Agent's queue; owned by
// the agent.
class NonceMemory {
public:
    // A request may come from a clock two minutes ahead, and stays timely for four.
    static constexpr std::chrono::seconds kept{242};
    static constexpr std::size_t maxPerPhone = 64; // in that time; one in four seconds

    // False when it was seen, or the phone has used up its share: then the request is not granted, since
    // nothing may be forgotten early.
    bool isNew(const std::string& nonce, const std::string& phoneID, SteadyTime now);
    void remember(std::string nonce, std::string phoneID, SteadyTime now);
    std::size_t size() const { return seen.size(); }

private:
    struct Seen {
        std::string nonce;
        std::string phoneID;
        SteadyTime at;
    };
    std::deque<Seen> seen; // in order of time
};

} // namespace pelorin
