// Scripted datagrams into a listener beside one real connection: strangers' own, and those of the connection
// changed, cut, repeated and out of time. Nobody gets in, and the connection goes on.

#include "PelorinNet/Channel/PelorinQUIC.h"
#include "PelorinNet/Identity/SigningKey.h"
#include "PelorinNet/Identity/SoftwareIdentity.h"
#include "PelorinNet/Queue/ManualQueues.h"
#include "Tests/Peers/DatagramWire.h"

namespace {

using namespace pelorin;

// The script: a verb and its numbers, until it ends.
class Script {
public:
    Script(const std::uint8_t* data, std::size_t size) : rest(data, size) {}
    bool isAtEnd() const { return rest.empty(); }
    std::size_t number(std::size_t bytes)
    {
        std::size_t value = 0;
        for (; bytes > 0 && !rest.empty(); --bytes, rest = rest.subspan(1)) value = value << 8 | rest[0];
        return value;
    }
    Bytes bytes(std::size_t count)
    {
        const auto taken = rest.first(std::min(count, rest.size()));
        rest = rest.subspan(taken.size());
        return {taken.begin(), taken.end()};
    }

private:
    ByteView rest;
};

std::unique_ptr<SoftwareIdentity> identityOf(std::uint8_t number)
{
    Bytes scalar(32, 0x11);
    scalar.back() = number;
    auto key = SigningKey::fromScalar(SecretBytes(std::move(scalar)));
    return SoftwareIdentity::create(std::move(*key), "fuzz", WallTime(std::chrono::years(54))).value();
}

class Scene {
public:
    Scene(const DeviceIdentity& host, const DeviceIdentity& phone)
    {
        const auto isOf = [](const DeviceIdentity& expected) {
            return [known = expected.fingerprint()](const Bytes& shown) { return shown == known; };
        };
        listener = PelorinQUIC::Listener::listen(
            queue, "127.0.0.1", 0, PelorinQUIC::parameters(queues, host, true, isOf(phone)))
                       .value();
        listener->onConnection = [this](auto connection) {
            ++connections;
            if (served) return;
            served = std::move(connection);
            served->onStream = [this](auto stream) {
                if (channel) return;
                channel = std::move(stream);
                channel->onBytes = [this](ByteView bytes) { received += bytes.size(); };
                channel->start(queue);
            };
        };
        const auto address = SocketAddress::ipv4({127, 0, 0, 1}, listener->port());
        wire.emplace(queue, address);
        wire->quality.delay = std::chrono::milliseconds(5);
        wire->tap = [this](const Bytes& datagram, auto) {
            if (recorded.size() < 64) recorded.push_back(datagram);
        };
        stranger = UDPSocket::open("127.0.0.1", 0, queue).value();
        target = address;
        client = PelorinQUIC::connect(
            queue, wire->address(), PelorinQUIC::parameters(queues, phone, false, isOf(host)))
                     .value();
        client->onClosed = [this](auto) { isClosed = true; };
        sender = client->openStream();
        sender->start(queue);
    }

    void play(Script script)
    {
        while (!script.isAtEnd()) {
            const std::size_t verb = script.number(1);
            if (verb % 4 == 3) {
                queues.advance(std::chrono::milliseconds(script.number(1)));
                continue;
            }
            Bytes datagram = verb % 4 == 0 ? script.bytes(script.number(2) % 1500) : changed(script);
            if (verb & 0x10)
                wire->send(verb & 0x20 ? DatagramWire::Way::toClient : DatagramWire::Way::toTarget, datagram);
            else
                stranger->send(datagram, target);
            queues.runReady();
        }
    }

    bool standsAfterwards()
    {
        queues.advance(std::chrono::seconds(4));
        const std::size_t before = received;
        sender->send(Bytes(1000));
        queues.advance(std::chrono::seconds(4));
        return connections == 1 && !isClosed && received == before + 1000;
    }

    // Until here nobody interferes: who can change what both ends say first can always end it.
    bool isEstablished()
    {
        queues.advance(std::chrono::seconds(1));
        return connections == 1 && channel != nullptr;
    }

private:
    Bytes changed(Script& script)
    {
        if (recorded.empty()) return {};
        Bytes datagram = recorded[script.number(1) % recorded.size()];
        if (const std::size_t at = script.number(2); at < datagram.size())
            datagram[at] ^= std::uint8_t(script.number(1));
        if (const std::size_t size = script.number(2); size < datagram.size()) datagram.resize(size);
        return datagram;
    }

    ManualQueues queues;
    const QueueRef queue = queues.makeQueue("fuzz");
    std::unique_ptr<PelorinQUIC::Listener> listener;
    std::optional<DatagramWire> wire;
    std::unique_ptr<UDPSocket> stranger;
    SocketAddress target;
    std::unique_ptr<PelorinQUIC::Connection> served, client;
    std::unique_ptr<Channel> channel, sender;
    std::vector<Bytes> recorded;
    int connections = 0;
    std::size_t received = 0;
    bool isClosed = false;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const auto host = identityOf(1), phone = identityOf(2);
    Scene scene(*host, *phone);
    require(scene.isEstablished(), "a connection comes about");
    scene.play({data, std::min<std::size_t>(size, 20'000)});
    require(scene.standsAfterwards(), "a connection goes on whatever others send");
    return 0;
}
