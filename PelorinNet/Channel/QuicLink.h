#pragma once

#include "PelorinNet/Channel/QuicEndpoint.h"
#include "PelorinNet/Channel/QuicStream.h"
#include "PelorinNet/Channel/QuicTls.h"

#include <deque>
#include <map>
#include <memory>

namespace pelorin {

// One connection: the library's state machine, its timer, its streams. Calls to its owner are made only from
// settle, never from within the library, so the owner may do anything in them. Queue: the endpoint's. Owned
// by the connection object that its user has; before that, of a server, by the listener; and kept by its
// channels, who outlive it as nothing but the word that it is over.
class QuicLink final : public QuicReceiver, public std::enable_shared_from_this<QuicLink> {
public:
    using StreamRef = std::shared_ptr<QuicStream>;

    static std::shared_ptr<QuicLink> connect(std::shared_ptr<QuicEndpoint> endpoint, const SocketAddress& to,
        std::shared_ptr<const QuicParameters> parameters);
    static std::shared_ptr<QuicLink> accept(std::shared_ptr<QuicEndpoint> endpoint, const SocketAddress& from,
        const ngtcp2_pkt_hd& header, std::shared_ptr<const QuicParameters> parameters);
    ~QuicLink() override;

    void takeUnknownDatagrams(); // of the endpoint, on which nobody else is

    // Who is told; its callbacks may be set at any time.
    void setOwner(PelorinQUIC::Connection& connection, const Lifetime::Watch& alive);
    std::function<void()> onHandshakeEnd; // in place of an owner: it is ready, or closed

    void receive(ByteView datagram, const SocketAddress& source) override;
    void answer() override;
    void settle() override;
    void becomeUnreachable(const SocketAddress& peer) override;
    void close(); // at once, in order; the owner is not told
    void resetCongestion();

    bool isReady() const { return ready; }
    bool isOpen() const { return connection != nullptr; }
    const SocketAddress& remoteAddress() const { return remote; }
    std::optional<Bytes> peerFingerprint() const;
    Duration smoothedRtt() const;
    const QueueRef& queue() const { return home; }

    // The channels' side. Each stream's channel ends with finish or abandon, once.
    std::unique_ptr<Channel> openStream();
    void attach(const StreamRef& stream, QuicStream::Attached attached);
    void send(const StreamRef& stream, std::vector<Bytes> parts);
    void consumed(const StreamRef& stream, std::size_t count);
    void finish(const StreamRef& stream);
    void abandon(const StreamRef& stream);

    // The library's side; all only note what happened.
    int handshakeCompleted();
    void handshakeConfirmed() { ready = true; }
    void streamOpened(std::int64_t id);
    void streamReceived(std::int64_t id, ByteView bytes, bool isEnd);
    void streamAcknowledged(std::int64_t id, std::uint64_t upTo);
    void streamReset(std::int64_t id);
    void streamClosed(std::int64_t id);
    void mayOpenMoreStreams() { mayOpenStreams = true; }
    void connectionLost() { isLostByPeer = true; }
    void makeConnectionID(ngtcp2_cid& id, std::uint8_t* resetToken);
    void retireConnectionID(const ngtcp2_cid& id);

private:
    enum class Goodbye {
        lastWord, // the peer is told
        silence, // it knows; what still arrives is not answered
        none, // we know nothing of it any more, and say so if it turns up again
    };
    struct Farewell {
        std::optional<NetError> error;
        Goodbye goodbye = Goodbye::lastWord;
        ngtcp2_connection_close_error lastWord{};
    };

    QuicLink(std::shared_ptr<QuicEndpoint> newEndpoint, const SocketAddress& newRemote,
        std::shared_ptr<const QuicParameters> newParameters);
    void adopt(ngtcp2_conn* made, const QuicConnectionID& id);
    ngtcp2_tstamp now() const;

    void judged(bool isAccepted);
    void read(ByteView datagram, const SocketAddress& source);
    void write();
    ngtcp2_ssize writePacket(QuicStream* stream, std::span<std::uint8_t> room, ngtcp2_path_storage& path);
    QuicStream* nextToWrite();
    void armTimer();
    void timerFired();

    void openWaiting();
    void tellPeer(const QuicStream& stream);
    void reportStreams();
    void report(const StreamRef& stream);
    void credit(QuicStream& stream, std::uint64_t count);
    void endStream(const StreamRef& stream);
    void stopReading(QuicStream& stream);
    bool hasLiveStreams() const;
    void keepAliveWhileNeeded();
    void callOwner();
    std::unique_ptr<Channel> channelOf(const StreamRef& stream);

    void stopBecause(int code); // the library's
    void stop(const Farewell& farewell);
    Bytes sayLastWord(const Farewell& farewell);
    std::optional<NetError> peersWord() const;

    const QueueRef home;
    std::shared_ptr<QuicEndpoint> endpoint; // while it is open
    const std::shared_ptr<const QuicParameters> parameters;
    SocketAddress remote;
    std::uint64_t pathEpoch = 0; // told to the library as part of addresses: another one is another path
    QuicTls tls;
    std::unique_ptr<ngtcp2_conn, void (*)(ngtcp2_conn*)> connection{nullptr, ngtcp2_conn_del};
    std::vector<QuicConnectionID> ids; // under which the endpoint knows us
    std::optional<std::pair<Bytes, SocketAddress>> suspended; // the datagram that waits for the verdict

    std::map<std::int64_t, StreamRef> streams; // those that are open
    std::deque<StreamRef> waiting; // to be opened
    std::deque<StreamRef> unclaimed; // opened by the peer, not yet given to the owner
    std::int64_t lastWritten = -1;
    bool mayOpenStreams = false;
    bool hadStreams = false;

    bool ready = false;
    bool isReadyTold = false;
    bool isLostByPeer = false;
    int fault = 0; // of the library, to be dealt with in settle
    std::optional<QuicEnd> ended;
    bool isEndTold = false;

    struct Owner {
        PelorinQUIC::Connection* connection;
        Lifetime::Watch alive;
    };
    std::optional<Owner> owner;
    Subscription timer;
    SteadyTime timerDue;
    Lifetime lifetime;
};

} // namespace pelorin
