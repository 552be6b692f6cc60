#include "PelorinNet/Channel/PelorinQUIC.h"

#include "PelorinNet/Channel/QuicChannel.h"
#include "PelorinNet/Channel/QuicListener.h"

namespace pelorin {
namespace {

class QuicConnection final : public PelorinQUIC::Connection {
public:
    explicit QuicConnection(std::shared_ptr<QuicLink> newLink) : link(std::move(newLink))
    {
        link->setOwner(*this, lifetime.watch());
    }
    ~QuicConnection() override { link->close(); }

    std::unique_ptr<Channel> openStream() override { return link->openStream(); }
    const SocketAddress& remoteAddress() const override { return link->remoteAddress(); }
    std::optional<Bytes> peerFingerprint() const override { return link->peerFingerprint(); }
    Duration smoothedRtt() const override { return link->smoothedRtt(); }
    void pathChanged() override { link->resetCongestion(); }

private:
    const std::shared_ptr<QuicLink> link;
    Lifetime lifetime;
};

std::shared_ptr<const QuicParameters> checked(
    std::shared_ptr<const PelorinQUIC::Parameters> parameters, bool isServer)
{
    auto quic = std::dynamic_pointer_cast<const QuicParameters>(std::move(parameters));
    require(quic && quic->isServer == isServer, "parameters come from parameters(), each for its own end");
    return quic;
}

} // namespace

std::unique_ptr<PelorinQUIC::Connection> makeQuicConnection(std::shared_ptr<QuicLink> link)
{
    return std::make_unique<QuicConnection>(std::move(link));
}

std::shared_ptr<const PelorinQUIC::Parameters> PelorinQUIC::parameters(
    QueueMaker& queues, const DeviceIdentity& identity, bool isServer, Accept accept)
{
    const TLSIdentity& shown = identity.secIdentity();
    return std::make_shared<QuicParameters>(queues.makeQueue("dev.pelorin.quic.verify"),
        QuicParameters::credentialsOf(shown), isServer, QuicParameters::resetKeyOf(shown), std::move(accept));
}

std::optional<Bytes> PelorinQUIC::peerFingerprint(const Channel& channel)
{
    const auto* const quic = dynamic_cast<const QuicChannel*>(&channel.carrier());
    return quic ? quic->peerFingerprint() : std::nullopt;
}

Result<std::unique_ptr<PelorinQUIC::Connection>, NetError> PelorinQUIC::connect(
    QueueRef queue, const SocketAddress& to, std::shared_ptr<const Parameters> parameters)
{
    queue->assertCurrent();
    auto endpoint = QuicEndpoint::open(std::move(queue), "127.0.0.1", 0);
    if (!endpoint) return std::unexpected(std::move(endpoint).error());
    auto link = QuicLink::connect(std::move(*endpoint), to, checked(std::move(parameters), false));
    auto connection = makeQuicConnection(link);
    // The socket is this connection's alone. What a peer sends that has lost it bears no ID.
    link->takeUnknownDatagrams();
    link->queue()->post(
        [link] { link->settle(); }); // the owner sets its callbacks before anything can happen
    return connection;
}

Result<std::unique_ptr<PelorinQUIC::Listener>, NetError> PelorinQUIC::Listener::listen(
    QueueRef queue, const std::string& host, std::uint16_t port, std::shared_ptr<const Parameters> parameters)
{
    queue->assertCurrent();
    auto endpoint = QuicEndpoint::open(std::move(queue), host, port);
    if (!endpoint) return std::unexpected(std::move(endpoint).error());
    return makeQuicListener(std::move(*endpoint), checked(std::move(parameters), true));
}

} // namespace pelorin
