#include "PelorinNet/Channel/LinkedChannel.h"
#include "PelorinNet/Channel/PelorinTLS.h"
#include "PelorinNet/Channel/TlsContext.h"
#include "PelorinNet/Channel/TlsEngine.h"

#include <array>

namespace pelorin {
namespace {
using PelorinTLS::HandshakeFailure;
using Step = TlsEngine::Step;

constexpr auto handshakeTimeout = std::chrono::seconds(10);
constexpr auto finishTimeout = std::chrono::seconds(1);
constexpr std::size_t recordSize = 16'384; // of plaintext, at most

// The transport and the TLS on it. Queue: the one given to start. Owned by the channel, and for a moment by
// the queue when it finishes without its channel.
class TlsLink : public std::enable_shared_from_this<TlsLink> {
public:
    TlsLink(std::unique_ptr<Channel> newTransport, std::shared_ptr<const TlsContext> context)
        : transport(std::move(newTransport)),
          engine(std::move(context))
    {
    }

    void start(QueueRef newQueue, LinkedChannel<TlsLink>* newChannel);
    void send(std::vector<Bytes> parts, Task onSent);
    void finish();
    void close();

    std::size_t unsentBytes() const { return waitingBytes + transport->unsentBytes(); }
    std::string remoteAddress() const { return transport->remoteAddress(); }
    std::string pathDescription() const { return transport->pathDescription(); }
    std::string peerIdentity() const { return isSecured ? engine.peerIdentity() : std::string(); }
    std::optional<HandshakeFailure> handshakeFailure() const { return failure; }

private:
    struct Waiting {
        std::vector<Bytes> parts;
        Task onSent;
    };

    void received(ByteView bytes);
    void shakeHands();
    void secured();
    void handshakeFailed(HandshakeFailure kind, const std::string& text);
    void deliver();
    void transportClosed(std::optional<NetError> error);
    void flush();
    void endSending();
    void closeAndReport(std::optional<NetError> error);

    const std::unique_ptr<Channel> transport;
    TlsEngine engine;
    QueueRef queue; // set by start
    LinkedChannel<TlsLink>* channel = nullptr; // while it wants to be told
    Subscription deadline; // of the handshake
    std::vector<Waiting> waiting; // for the end of the handshake
    std::size_t waitingBytes = 0;
    std::optional<HandshakeFailure> failure;
    bool isSecured = false;
    bool isOpen = false;
};

// Adds what only a channel with keys can tell.
class TlsChannel final : public LinkedChannel<TlsLink> {
public:
    using LinkedChannel::LinkedChannel;
    std::string peerIdentity() const override { return link->peerIdentity(); }
    bool hasFailedHandshake() const override { return link->handshakeFailure().has_value(); }
    std::optional<HandshakeFailure> handshakeFailure() const { return link->handshakeFailure(); }
};

void TlsLink::start(QueueRef newQueue, LinkedChannel<TlsLink>* newChannel)
{
    require(!queue, "a channel is started once");
    queue = std::move(newQueue);
    queue->assertCurrent();
    channel = newChannel;
    isOpen = true;
    transport->onBytes = [this](ByteView bytes) { received(bytes); };
    transport->onClosed = [this](std::optional<NetError> error) { transportClosed(std::move(error)); };
    deadline = queue->after(handshakeTimeout,
        [this] { handshakeFailed(HandshakeFailure::timedOut, "it took longer than 10 s"); });
    transport->start(queue);
    shakeHands(); // a client speaks first
}

void TlsLink::received(ByteView bytes)
{
    const auto self = shared_from_this(); // the callbacks may destroy the channel
    engine.offer(bytes);
    if (!isSecured) shakeHands();
    if (isSecured && channel) deliver();
}

void TlsLink::shakeHands()
{
    const Step step = engine.handshake();
    flush();
    switch (step) {
    case Step::done:
        return secured();
    case Step::wantsMore:
        return;
    case Step::ended:
        return handshakeFailed(HandshakeFailure::closed, "the peer gave up");
    case Step::failed:
        return handshakeFailed(engine.failure().kind, engine.failure().text);
    }
}

void TlsLink::secured()
{
    isSecured = true;
    deadline.cancel();
    waitingBytes = 0;
    for (auto& [parts, onSent] : std::exchange(waiting, {})) {
        engine.write(parts);
        transport->send(engine.takeOutput(), std::move(onSent));
    }
    if (!channel) endSending(); // it has finished meanwhile
}

void TlsLink::handshakeFailed(HandshakeFailure kind, const std::string& text)
{
    failure = kind;
    closeAndReport(NetError{"TLS handshake failed: " + text});
}

void TlsLink::deliver()
{
    std::array<std::uint8_t, recordSize> buffer;
    while (channel) {
        const auto [step, bytes] = engine.read(buffer);
        flush();
        switch (step) {
        case Step::done:
            channel->reportBytes(bytes);
            break;
        case Step::wantsMore:
            return;
        case Step::ended:
            engine.writeEnd();
            flush();
            return closeAndReport(std::nullopt);
        case Step::failed:
            return closeAndReport(NetError{"TLS failed: " + engine.failure().text});
        }
    }
}

void TlsLink::transportClosed(std::optional<NetError> error)
{
    if (isSecured) return closeAndReport(std::move(error));
    handshakeFailed(HandshakeFailure::closed, error ? error->description : "the peer closed the connection");
}

void TlsLink::send(std::vector<Bytes> parts, Task onSent)
{
    require(queue != nullptr, "a channel sends only after its start");
    queue->assertCurrent();
    if (!channel || !isOpen) return;
    if (isSecured) {
        engine.write(parts);
        return transport->send(engine.takeOutput(), std::move(onSent));
    }
    for (const auto& part : parts) waitingBytes += part.size();
    waiting.push_back({std::move(parts), std::move(onSent)});
}

void TlsLink::flush()
{
    Bytes output = engine.takeOutput();
    if (!output.empty()) transport->send(std::move(output));
}

void TlsLink::finish()
{
    if (!isOpen) return close();
    queue->assertCurrent();
    channel = nullptr;
    if (isSecured || waiting.empty()) return endSending();
    std::vector<Task> dropped;
    dropped.reserve(waiting.size());
    for (auto& entry : waiting) dropped.push_back(std::exchange(entry.onSent, nullptr));
    queue->postAfter(finishTimeout, [self = shared_from_this()] { self->close(); });
}

void TlsLink::endSending()
{
    if (isSecured) engine.writeEnd();
    flush();
    isOpen = false;
    deadline.cancel();
    transport->finish();
}

// Finished in order even after a failure, so that the alert arrives.
void TlsLink::closeAndReport(std::optional<NetError> error)
{
    const auto self = shared_from_this();
    isOpen = false;
    deadline.cancel();
    waitingBytes = 0;
    const auto dropped = std::exchange(waiting, {}); // kept to the end: a task may own the channel
    transport->finish();
    if (auto* const told = std::exchange(channel, nullptr)) told->reportClosed(std::move(error));
}

void TlsLink::close()
{
    channel = nullptr;
    isOpen = false;
    deadline.cancel();
    const auto dropped = std::exchange(waiting, {});
}

} // namespace

std::shared_ptr<const PelorinTLS::ServerParameters> PelorinTLS::parameters(const std::vector<Key>& keys)
{
    return std::make_shared<TlsContext>(TlsContext::Role::server, keys);
}

std::unique_ptr<Channel> PelorinTLS::serverChannel(
    std::unique_ptr<Channel> transport, std::shared_ptr<const ServerParameters> parameters)
{
    auto context = std::dynamic_pointer_cast<const TlsContext>(std::move(parameters));
    require(context && context->role == TlsContext::Role::server, "parameters come from parameters()");
    return std::make_unique<TlsChannel>(std::make_shared<TlsLink>(std::move(transport), std::move(context)));
}

std::unique_ptr<Channel> PelorinTLS::clientChannel(std::unique_ptr<Channel> transport, Key key)
{
    std::vector<Key> keys;
    keys.push_back(std::move(key));
    auto context = std::make_shared<TlsContext>(TlsContext::Role::client, std::move(keys));
    return std::make_unique<TlsChannel>(std::make_shared<TlsLink>(std::move(transport), std::move(context)));
}

std::optional<PelorinTLS::HandshakeFailure> PelorinTLS::handshakeFailure(const Channel& channel)
{
    const auto* const tls = dynamic_cast<const TlsChannel*>(&channel);
    return tls ? tls->handshakeFailure() : std::nullopt;
}

} // namespace pelorin
