#pragma once

#include "PelorinNet/Path/UDPSocket.h"

#include <array>
#include <ngtcp2/ngtcp2.h>
#include <unordered_map>

namespace pelorin {

// By which datagrams find their connection. Ours have ownSize bytes; the first one of a client is its own.
struct QuicConnectionID {
    static constexpr std::size_t ownSize = 16;
    static QuicConnectionID random();
    static QuicConnectionID of(const ngtcp2_cid& id) { return of({id.data, id.datalen}); }
    static QuicConnectionID of(ByteView bytes); // at most NGTCP2_MAX_CIDLEN

    ByteView view() const { return {bytes.data(), size}; }
    ngtcp2_cid cid() const;
    bool operator==(const QuicConnectionID&) const = default;

private:
    std::array<std::uint8_t, NGTCP2_MAX_CIDLEN> bytes{};
    std::uint8_t size = 0;
};

// Who takes the datagrams of a connection.
class QuicReceiver {
public:
    virtual ~QuicReceiver() = default;
    virtual void receive(ByteView datagram, const SocketAddress& source) = 0; // calls nobody
    virtual void answer() = 0; // in the midst of a batch; calls nobody
    virtual void settle() = 0; // after a batch: time to answer, and to call out
    virtual void becomeUnreachable(const SocketAddress& peer) = 0; // the network says so; settle follows
};

} // namespace pelorin

template <>
struct std::hash<pelorin::QuicConnectionID> {
    std::size_t operator()(const pelorin::QuicConnectionID& id) const noexcept
    {
        const auto bytes = id.view();
        return std::hash<std::string_view>()({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
    }
};

namespace pelorin {

// A UDP socket and the connections on it, one of a client or all of a listener. Queue: the one given. Owned
// by its connections and its listener together, and by the queue while late datagrams are answered.
class QuicEndpoint : public std::enable_shared_from_this<QuicEndpoint> {
public:
    static Result<std::shared_ptr<QuicEndpoint>, NetError> open(
        QueueRef queue, const std::string& host, std::uint16_t port);

    // A datagram of no connection. Calls nobody.
    std::function<void(ByteView datagram, const SocketAddress& source, const ngtcp2_version_cid& header)>
        onUnknown;

    void add(const QuicConnectionID& id, std::weak_ptr<QuicReceiver> receiver);
    void remove(const QuicConnectionID& id);
    void touch(std::weak_ptr<QuicReceiver> receiver); // lets it settle with the batch that arrives

    // Answers, for a while, what still arrives for a connection that is gone: with its last word, or with
    // silence where that is empty.
    void sayFarewell(
        const std::vector<QuicConnectionID>& ids, Bytes lastWord, const SocketAddress& to, Duration time);

    // Where to write the next datagram, largestDatagram bytes; then enqueue it. What is enqueued goes out
    // with flush.
    std::span<std::uint8_t> room();
    void enqueue(std::size_t size, const SocketAddress& to);
    void flush();
    void send(ByteView datagram, const SocketAddress& to) { socket->send(datagram, to); }

    const SocketAddress& localAddress() const { return socket->localAddress(); }
    const QueueRef queue;

private:
    QuicEndpoint(QueueRef newQueue, std::unique_ptr<UDPSocket> newSocket);
    void received(ByteView datagram, const SocketAddress& source);
    void endBatch();
    void becameUnreachable(const SocketAddress& peer);

    const std::unique_ptr<UDPSocket> socket;
    std::unordered_map<QuicConnectionID, std::weak_ptr<QuicReceiver>> receivers;
    std::vector<std::weak_ptr<QuicReceiver>> touched; // since the batch began
    std::size_t batchSize = 0; // datagrams of connections
    Bytes arena; // datagrams to be flushed
    std::size_t used = 0; // of arena, in datagrams
};

} // namespace pelorin
