#pragma once

#include "PelorinNet/NetError.h"
#include "PelorinNet/Path/Retransmission.h"
#include "PelorinNet/Path/UDPSocket.h"
#include "PelorinNet/Stun/ChannelData.h"
#include "PelorinNet/Stun/StunMessage.h"

#include <deque>
#include <unordered_map>

namespace pelorin {

// What the rendezvous service gives for use of its relays; valid for a limited time.
struct TurnCredentials {
    std::string username;
    std::string credential;
    bool operator==(const TurnCredentials&) const = default;
};

// One allocation on a relay (RFC 8656, over UDP), on a socket of its own. Path queue; owned by PathSetup,
// told to the DatagramProxy while it is of use.
class TurnClient {
public:
    using Done = std::function<void(Result<void, NetError>)>;
    using Allocated = std::function<void(Result<SocketAddress, NetError>)>;

    // candidates: the relay's addresses, at least one; all are asked and the first that answers is used. The
    // socket's callbacks become the client's.
    TurnClient(std::unique_ptr<UDPSocket> newSocket, std::vector<SocketAddress> newCandidates,
        TurnCredentials newCredentials, QueueRef newQueue);
    ~TurnClient(); // gives the allocation back with one unanswered Refresh of lifetime 0

    // Payloads that arrived on a channel; valid during the batch, as with UDPSocket.
    std::function<void(std::uint16_t channel, ByteView payload)> onChannelData;
    std::function<void()> onBatchEnd; // of the socket
    std::function<void(int errorNumber)> onUnreachable; // the network says that the relay is gone

    // The errors are "<method> timed out", "<method> failed: <code> <reason>" and the like, the method as in
    // StunMessage::Method. A silent relay has failed a request after 7.5 s. Requests may run side by side.
    // Completions may destroy the client; one destroyed before calls none.
    void allocate(Allocated done);
    void createPermission(const SocketAddress& peer, Done done);
    void channelBind(const SocketAddress& peer, std::uint16_t channel, Done done); // permits peer as well
    void refresh(Done done); // for the lifetime asked at allocation, 600 s
    std::chrono::seconds granted() const { return lifetimeGranted; } // at the last of both

    void send(std::uint16_t channel, ByteView payload); // now
    void enqueue(std::uint16_t channel, ByteView payload); // valid until flush, as with UDPSocket
    void flush();
    bool handle(ByteView datagram, const SocketAddress& source); // false: not from the relay

    const SocketAddress& server() const { return relay; } // in use; the first candidate until one answers
    const std::optional<SocketAddress>& relayed() const { return relayedAddress; }
    const std::optional<SocketAddress>& mapped() const { return mappedAddress; }
    std::uint64_t verifiedResponses() const { return verifiedCount; } // whose integrity was right

private:
    using Method = StunMessage::Method;
    using Key = std::array<std::uint8_t, 16>;
    using Responded = std::function<void(Result<StunMessage, NetError>)>;

    // What is asked, through all attempts.
    struct Request {
        Method method;
        std::vector<StunMessage::Attribute> attributes;
        std::optional<SocketAddress> peer; // its attribute depends on the transaction
        Responded done;
        int attempt = 0;
    };
    // One attempt.
    struct Transaction {
        Request request;
        std::optional<Key> key; // it was signed with
        std::unique_ptr<Retransmission> sending;
    };

    void transact(Request request);
    Bytes signedRequest(const Request& request, const StunMessage::TransactionID& id) const;
    void sendToRelay(ByteView datagram);
    void timedOut(const StunMessage::TransactionID& id);
    bool isFromRelay(const SocketAddress& source) const;
    void receive(const StunMessage& response, ByteView datagram, const SocketAddress& source);
    void complete(Request request, const StunMessage& response);
    bool takeChallenge(const StunMessage& response);
    void allocated(const StunMessage& response, const Allocated& done);
    void noteLifetime(const StunMessage& response);

    const QueueRef queue;
    const std::unique_ptr<UDPSocket> socket;
    const std::vector<SocketAddress> candidates;
    SocketAddress relay;
    bool isRelayChosen;
    const TurnCredentials credentials;
    std::string realm, nonce; // of the relay's last challenge
    std::optional<Key> key; // once there was one
    std::optional<SocketAddress> relayedAddress, mappedAddress;
    std::chrono::seconds lifetimeGranted{};
    std::uint64_t verifiedCount = 0;
    std::unordered_map<StunMessage::TransactionID, Transaction> pending;
    std::deque<std::array<std::uint8_t, ChannelData::headerSize>> headers; // of what is not flushed yet
    Lifetime lifetime;
};

} // namespace pelorin
