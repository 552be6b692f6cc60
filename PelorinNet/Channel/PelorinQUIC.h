#pragma once

#include "PelorinNet/Channel/Channel.h"
#include "PelorinNet/Identity/DeviceIdentity.h"
#include "PelorinNet/Stun/SocketAddress.h"

#include <memory>

// The channel of remote paths: QUIC (RFC 9000) with TLS 1.3 and a certificate at both ends, of which the key
// alone counts. It runs over the loopback interface to a DatagramProxy, which carries the datagrams onward.
namespace pelorin::PelorinQUIC {

inline constexpr const char* alpn = "pelorin/1";
inline constexpr std::chrono::milliseconds idleTimeout{15'000};
inline constexpr std::size_t largestDatagram = 1350; // bytes of UDP payload

// Whether to trust the peer with that fingerprint, 32 bytes: KeyFingerprint::of its certificate's key. Called
// on the queue "dev.pelorin.quic.verify", once a handshake, which waits meanwhile and nobody else does. It
// may be called for a peer that then fails to prove that the key is its own. What it throws refuses.
using Accept = std::function<bool(const Bytes& fingerprint)>;

// What either end shows, and whom it takes. isServer asks the client for its certificate. Any thread; shared.
class Parameters {
public:
    virtual ~Parameters() = default;
};
std::shared_ptr<const Parameters> parameters(
    QueueMaker& queues, const DeviceIdentity& identity, bool isServer, Accept accept);

// The key by which a channel's peer has proved itself; nothing before, and of a channel that is not QUIC.
std::optional<Bytes> peerFingerprint(const Channel& channel);

// One QUIC connection. Queue: the one given when it was made; its channels may be started on any other.
// Destroying it closes the connection at once and in order; its channels end with an error. A connection
// lives as long as its owner lets it: keep it until onLastStreamEnd, and what was sent on its channels has
// arrived.
class Connection {
public:
    virtual ~Connection() = default;

    std::function<void()> onReady; // the handshake is confirmed: both ends have judged the other
    // The peer opened one; not started. Those opened while nobody listens here wait for who does.
    std::function<void(std::unique_ptr<Channel>)> onStream;
    // The last open stream is gone: all channels are finished or closed, and what they sent is acknowledged,
    // or its second is over. Comes again when others were opened since.
    std::function<void()> onLastStreamEnd;
    std::function<void(std::optional<NetError>)>
        onClosed; // at most once; no error: closed in order by the peer

    virtual std::unique_ptr<Channel> openStream() = 0; // both ways; waits for the handshake by itself
    virtual const SocketAddress& remoteAddress() const = 0; // on the loopback interface
    virtual std::optional<Bytes> peerFingerprint() const = 0;
    virtual Duration smoothedRtt() const = 0;
    // The datagrams take another way from here on, though their addresses stay: what was learnt of the old
    // one about its speed and its round trip is forgotten.
    virtual void pathChanged() = 0;
};

// Accepts QUIC connections on a UDP port of the loopback interface. Queue: the one given.
class Listener {
public:
    static Result<std::unique_ptr<Listener>, NetError> listen(QueueRef queue, const std::string& host,
        std::uint16_t port, std::shared_ptr<const Parameters> parameters);
    virtual ~Listener() = default; // closes every connection it still owns

    // A peer has been accepted and its handshake confirmed. The connection is the callee's.
    std::function<void(std::unique_ptr<Connection>)> onConnection;
    virtual std::uint16_t port() const = 0;
};

// Connects from a socket of its own on the loopback interface; onReady or onClosed of the result tells the
// outcome.
Result<std::unique_ptr<Connection>, NetError> connect(
    QueueRef queue, const SocketAddress& to, std::shared_ptr<const Parameters> parameters);

} // namespace pelorin::PelorinQUIC
