#pragma once

#include "PelorinNet/Path/UDPSocket.h"

#include <chrono>
#include <optional>
#include <set>
#include <unordered_set>
#include <vector>

namespace pelorin {

class TurnClient;

// Carries the datagrams of a QUIC endpoint on this machine over whatever path is chosen now, and hands what
// arrives back to it; QUIC sees one peer on the loopback interface and never learns. STUN is split off for
// those who look for paths. Path queue; owned by PathSetup, and outlived by the TURN clients it is told of.
class DatagramProxy {
public:
    // A way to the peer: straight from the network socket, or through an allocation on a relay.
    struct Path {
        TurnClient* turn = nullptr; // none: direct
        std::uint16_t channel = 0; // of turn
        SocketAddress address; // of direct

        static Path direct(const SocketAddress& address) { return {nullptr, 0, address}; }
        static Path relayed(TurnClient& turn, std::uint16_t channel) { return {&turn, channel, {}}; }
        bool operator==(const Path&) const = default;
    };
    struct Counters {
        std::uint64_t sent = 0, received = 0, droppedOversize = 0, droppedBlocked = 0, ignoredLocal = 0;
        std::size_t largestSent = 0; // bytes
        std::uint16_t ignoredLocalPort = 0; // source of the last ignored local datagram
        std::optional<SteadyTime> lastReceived; // by QUIC
        std::optional<SteadyTime> lastSent; // for QUIC
    };
    static constexpr std::size_t largestDatagram = 1350; // bytes, before any framing for a relay

    // Opens the socket that faces the network on every address, and the one on 127.0.0.1 that faces QUIC.
    static Result<std::unique_ptr<DatagramProxy>, NetError> open(QueueRef queue);
    ~DatagramProxy();

    std::function<void(ByteView, const SocketAddress& source)> onOtherDatagram; // on the network socket
    std::function<void(ByteView, const Path&)> onRelayedStun;
    std::function<void(const SocketAddress& peer)> onUnreachable; // from the network socket

    // QUIC's datagrams come over another path than the last one did, or for the first time: the peer has
    // chosen.
    std::function<void(const Path&)> onArrivalPathChange;

    std::optional<Path> path; // none: what QUIC sends is dropped
    std::unordered_set<SocketAddress> validatedPeers; // direct peers from whom QUIC may hear
    std::optional<SocketAddress> quicEndpoint; // else the source of the first datagram on the local socket
    TurnClient* blockedTurn = nullptr; // drops what goes out through it: for tests of a dying relay

    UDPSocket& network() { return *networkSocket; }
    UDPSocket& local() { return *localSocket; }
    // Serves a client that has a socket of its own from now on, until it is removed: relayed data on a
    // channel that was opened here goes to QUIC or onRelayedStun, on any other it is dropped.
    void add(TurnClient& turn);
    void openChannel(TurnClient& turn, std::uint16_t channel);
    void remove(TurnClient& turn);

    // Sends a STUN datagram over that path, as the checks of a path need it.
    void send(ByteView datagram, const Path& over);

    const Counters& counters() const { return count; }
    std::string statistics() const; // one line for the log

private:
    struct Served {
        TurnClient* turn = nullptr;
        std::set<std::uint16_t> channels; // opened
    };

    DatagramProxy(
        QueueRef newQueue, std::unique_ptr<UDPSocket> newNetwork, std::unique_ptr<UDPSocket> newLocal);
    void fromLocal(ByteView datagram, const SocketAddress& source);
    void fromNetwork(ByteView datagram, const SocketAddress& source);
    void fromRelay(TurnClient& turn, std::uint16_t channel, ByteView payload);
    void deliver(ByteView datagram, const Path& from);
    void flushOutward();
    Served* find(const TurnClient& turn);

    const QueueRef queue;
    std::unique_ptr<UDPSocket> networkSocket;
    std::unique_ptr<UDPSocket> localSocket;
    std::vector<Served> turns;
    Counters count;
    std::optional<Path> lastArrival; // of what QUIC got
    Lifetime lifetime;
};

} // namespace pelorin
