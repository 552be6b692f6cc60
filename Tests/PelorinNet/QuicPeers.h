#pragma once

#include "PelorinNet/Channel/QuicParameters.h"
#include "PelorinNet/Identity/SigningKey.h"
#include "PelorinNet/Identity/SoftwareIdentity.h"
#include "PelorinNet/Queue/ManualQueues.h"
#include "Tests/Peers/DatagramWire.h"

#include <gtest/gtest.h>

namespace pelorin {

inline std::unique_ptr<SoftwareIdentity> makeQuicIdentity(const std::string& name)
{
    return SoftwareIdentity::create(SigningKey::generate().value(), name, WallTime(std::chrono::years(54)))
        .value();
}

inline SocketAddress loopbackAddress(std::uint16_t port)
{
    return SocketAddress::ipv4({127, 0, 0, 1}, port);
}

// A channel, started, and what came over it.
struct QuicEndOfStream {
    QuicEndOfStream(std::unique_ptr<Channel> newChannel, const QueueRef& queue)
        : channel(std::move(newChannel))
    {
        channel->onBytes
            = [this](ByteView bytes) { received.insert(received.end(), bytes.begin(), bytes.end()); };
        channel->onClosed = [this](auto error) { closed = error ? error->description : "in order"; };
        channel->start(queue);
    }
    std::unique_ptr<Channel> channel;
    Bytes received;
    std::optional<std::string> closed;
};

// A connection, and what became of it.
struct QuicEndOfConnection {
    void take(std::unique_ptr<PelorinQUIC::Connection> made, const QueueRef& newQueue)
    {
        connection = std::move(made);
        queue = newQueue;
        connection->onReady = [this] { ++ready; };
        connection->onClosed = [this](auto error) { closed = error ? error->description : "in order"; };
        connection->onLastStreamEnd = [this] { ++lastStreamEnds; };
        connection->onStream = [this](auto channel) {
            streams.push_back(std::make_unique<QuicEndOfStream>(std::move(channel), queue));
        };
    }
    QuicEndOfStream& open()
    {
        return *streams.emplace_back(std::make_unique<QuicEndOfStream>(connection->openStream(), queue));
    }
    std::unique_ptr<PelorinQUIC::Connection> connection;
    QueueRef queue;
    int ready = 0, lastStreamEnds = 0;
    std::optional<std::string> closed;
    std::vector<std::unique_ptr<QuicEndOfStream>> streams;
};

// A host that listens and phones that connect, all on one virtual time, over real sockets.
class QuicTest : public testing::Test {
protected:
    static bool acceptAll(const Bytes&) { return true; }

    void listen(PelorinQUIC::Accept accept = acceptAll, std::uint16_t port = 0)
    {
        listen(PelorinQUIC::parameters(queues, *hostIdentity, true, std::move(accept)), port);
    }
    void listen(std::shared_ptr<const PelorinQUIC::Parameters> parameters, std::uint16_t port = 0)
    {
        listener = PelorinQUIC::Listener::listen(hostQueue, "127.0.0.1", port, std::move(parameters)).value();
        listener->onConnection = [this](auto connection) {
            hosts.emplace_back(std::make_unique<QuicEndOfConnection>())
                ->take(std::move(connection), hostQueue);
        };
    }
    SocketAddress listenerAddress() const { return loopbackAddress(listener->port()); }
    std::shared_ptr<const PelorinQUIC::Parameters> phoneParameters(PelorinQUIC::Accept accept = acceptAll)
    {
        return PelorinQUIC::parameters(queues, *phoneIdentity, false, std::move(accept));
    }
    void connect(const SocketAddress& to, std::shared_ptr<const PelorinQUIC::Parameters> parameters)
    {
        phone.take(PelorinQUIC::connect(phoneQueue, to, std::move(parameters)).value(), phoneQueue);
    }
    // A connection over a wire of that quality, with one stream that the phone opened.
    void connectOver(const DatagramWire::Quality& quality)
    {
        listen();
        wire.emplace(wireQueue, listenerAddress());
        wire->quality = quality;
        connect(wire->address(), phoneParameters());
        phone.open();
        advanceUntil([&] { return !hosts.empty() && !hosts[0]->streams.empty(); });
        ASSERT_EQ(hosts.size(), 1u);
        ASSERT_EQ(hosts[0]->streams.size(), 1u);
    }
    bool advanceUntil(const std::function<bool()>& condition, Duration most = std::chrono::seconds(30))
    {
        const auto end = queues.now() + most;
        queues.runReady();
        while (!condition() && queues.now() < end) queues.advance(std::chrono::milliseconds(1));
        return condition();
    }
    QuicEndOfConnection& host() { return *hosts.at(0); }
    Channel& phoneStream() { return *phone.streams.at(0)->channel; }
    Channel& hostStream() { return *host().streams.at(0)->channel; }

    ManualQueues queues;
    const QueueRef hostQueue = queues.makeQueue("host"), phoneQueue = queues.makeQueue("phone"),
                   wireQueue = queues.makeQueue("wire");
    const std::unique_ptr<SoftwareIdentity> hostIdentity = makeQuicIdentity("host"),
                                            phoneIdentity = makeQuicIdentity("phone");
    std::unique_ptr<PelorinQUIC::Listener> listener;
    std::optional<DatagramWire> wire;
    std::vector<std::unique_ptr<QuicEndOfConnection>> hosts; // each connection that the listener reported
    QuicEndOfConnection phone;
};

} // namespace pelorin
