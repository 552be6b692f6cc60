#pragma once

#include "PelorinNet/NetError.h"
#include "PelorinNet/Path/UDPSocket.h"
#include "PelorinNet/Stun/StunMessage.h"

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

    // candidates: the relay's addresses, at least one; the first that answers is used. The socket's onReceive
    // becomes the client's.
    TurnClient(std::unique_ptr<UDPSocket> socket, std::vector<SocketAddress> candidates,
        TurnCredentials credentials, QueueRef queue);
    ~TurnClient(); // gives the allocation back with one unanswered Refresh of lifetime 0

    // Payloads that arrived on a channel; valid during the batch, as with UDPSocket.
    std::function<void(std::uint16_t channel, ByteView payload)> onChannelData;
    std::function<void()> onBatchEnd; // of the socket
    std::function<void(int errorNumber)> onUnreachable; // the network says that the relay is gone

    // The errors are "<method> timed out", "<method> failed: <code> <reason>" and the like, the method as in
    // StunMessage::Method. Completions may destroy the client.
    void allocate(Allocated done);
    void createPermission(const SocketAddress& peer, Done done);
    void channelBind(const SocketAddress& peer, std::uint16_t channel, Done done); // permits peer as well
    void refresh(Done done); // for the lifetime asked at allocation, 600 s

    void send(std::uint16_t channel, ByteView payload); // now
    void enqueue(std::uint16_t channel, ByteView payload); // valid until flush, as with UDPSocket
    void flush();
    bool handle(ByteView datagram, const SocketAddress& source); // false: not from the relay

    const SocketAddress& server() const; // the relay in use
    const std::optional<SocketAddress>& relayed() const;
    const std::optional<SocketAddress>& mapped() const;
    std::uint64_t verifiedResponses() const;
};

} // namespace pelorin
