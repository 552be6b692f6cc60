#include "PelorinNet/Channel/QuicListener.h"

#include "PelorinNet/Channel/CallOut.h"

#include <algorithm>
#include <gnutls/crypto.h>
#include <list>

namespace pelorin {
namespace {

constexpr std::size_t maxHandshakes = 64; // under way at once, from everywhere
constexpr std::size_t maxHandshakesOfSource
    = 8; // each path comes from a source of its own: one can't shut out others
constexpr std::size_t maxConnections = 256; // with those that have owners
constexpr int maxAnswersPerSecond = 64; // to datagrams of no connection
constexpr std::size_t smallestReset = 21; // shorter ones can't be told from other datagrams

// Says no more answers than so many a second.
class AnswerLimit {
public:
    bool admit(SteadyTime now)
    {
        if (now - began >= std::chrono::seconds(1)) {
            began = now;
            count = 0;
        }
        return ++count <= maxAnswersPerSecond;
    }

private:
    SteadyTime began;
    int count = 0;
};

class QuicListener final : public PelorinQUIC::Listener {
public:
    QuicListener(
        std::shared_ptr<QuicEndpoint> newEndpoint, std::shared_ptr<const QuicParameters> newParameters)
        : endpoint(std::move(newEndpoint)),
          parameters(std::move(newParameters))
    {
        endpoint->onUnknown = [this](ByteView datagram, const SocketAddress& source,
                                  const ngtcp2_version_cid& header) { unknown(datagram, source, header); };
    }
    ~QuicListener() override
    {
        endpoint->onUnknown = nullptr;
        for (const auto& link : std::exchange(handshakes, {})) link->close();
    }
    std::uint16_t port() const override { return endpoint->localAddress().port; }

private:
    void unknown(ByteView datagram, const SocketAddress& source, const ngtcp2_version_cid& header);
    void accept(ByteView datagram, const SocketAddress& source);
    bool hasRoomFor(const SocketAddress& source);
    void handshakeEnded(const std::shared_ptr<QuicLink>& link);
    void offerVersion(const SocketAddress& source, const ngtcp2_version_cid& header);
    void reset(ByteView datagram, const SocketAddress& source, const ngtcp2_version_cid& header);

    const std::shared_ptr<QuicEndpoint> endpoint;
    const std::shared_ptr<const QuicParameters> parameters;
    std::list<std::shared_ptr<QuicLink>> handshakes;
    std::vector<std::weak_ptr<QuicLink>> handedOver;
    AnswerLimit answers;
    Lifetime lifetime;
};

// Runs while the socket hands over a batch, so nobody is called from here.
void QuicListener::unknown(ByteView datagram, const SocketAddress& source, const ngtcp2_version_cid& header)
{
    if (!(datagram[0] & 0x80)) return reset(datagram, source, header);
    if (header.version == NGTCP2_PROTO_VER_V1) return accept(datagram, source);
    if (header.version != 0 && datagram.size() >= 1200) offerVersion(source, header);
}

void QuicListener::accept(ByteView datagram, const SocketAddress& source)
{
    ngtcp2_pkt_hd header{};
    if (ngtcp2_accept(&header, datagram.data(), datagram.size()) != 0) return;
    if (!hasRoomFor(source)) return;
    const auto link = QuicLink::accept(endpoint, source, header, parameters);
    link->receive(datagram, source);
    link->onHandshakeEnd = [this, weak = std::weak_ptr(link), alive = lifetime.watch()] {
        const auto ended = weak.lock();
        if (alive && ended) handshakeEnded(ended);
    };
    handshakes.push_back(link);
    endpoint->touch(link);
}

bool QuicListener::hasRoomFor(const SocketAddress& source)
{
    std::erase_if(handedOver, [](const auto& weak) {
        const auto link = weak.lock();
        return !link || !link->isOpen();
    });
    if (handshakes.size() >= maxHandshakes || handshakes.size() + handedOver.size() >= maxConnections)
        return false;
    const auto isOfSource = [&](const auto& link) { return link->remoteAddress() == source; };
    return std::size_t(std::ranges::count_if(handshakes, isOfSource)) < maxHandshakesOfSource;
}

void QuicListener::handshakeEnded(const std::shared_ptr<QuicLink>& link)
{
    std::erase(handshakes, link);
    if (!link->isReady() || !link->isOpen()) return;
    handedOver.push_back(link);
    auto connection = makeQuicConnection(link);
    if (onConnection) callOut(onConnection, lifetime.watch(), std::move(connection));
}

void QuicListener::offerVersion(const SocketAddress& source, const ngtcp2_version_cid& header)
{
    if (!answers.admit(endpoint->queue->now())) return;
    std::array<std::uint8_t, PelorinQUIC::largestDatagram> answer;
    const std::uint32_t known = NGTCP2_PROTO_VER_V1;
    const auto random = QuicConnectionID::random();
    const ngtcp2_ssize size = ngtcp2_pkt_write_version_negotiation(answer.data(), answer.size(),
        random.view()[0], header.scid, header.scidlen, header.dcid, header.dcidlen, &known, 1);
    if (size > 0) endpoint->send({answer.data(), std::size_t(size)}, source);
}

// Tells a peer that its connection is unknown here, as after a restart. Shorter than what it answers, so that
// two ends that know nothing fall silent.
void QuicListener::reset(ByteView datagram, const SocketAddress& source, const ngtcp2_version_cid& header)
{
    constexpr std::size_t usualSize = 43; // looks like any small datagram
    if (datagram.size() <= smallestReset || !answers.admit(endpoint->queue->now())) return;
    const std::size_t size = std::min(datagram.size() - 1, usualSize);
    const ngtcp2_cid id = QuicConnectionID::of({header.dcid, header.dcidlen}).cid();
    std::array<std::uint8_t, NGTCP2_STATELESS_RESET_TOKENLEN> token;
    std::array<std::uint8_t, usualSize> random, answer;
    const ByteView key = parameters->resetKey.view();
    require(gnutls_rnd(GNUTLS_RND_NONCE, random.data(), random.size()) == 0
            && ngtcp2_crypto_generate_stateless_reset_token(token.data(), key.data(), key.size(), &id) == 0,
        "no random bytes");
    const ngtcp2_ssize written = ngtcp2_pkt_write_stateless_reset(
        answer.data(), size, token.data(), random.data(), size - token.size());
    if (written > 0) endpoint->send({answer.data(), std::size_t(written)}, source);
}

} // namespace

std::unique_ptr<PelorinQUIC::Listener> makeQuicListener(
    std::shared_ptr<QuicEndpoint> endpoint, std::shared_ptr<const QuicParameters> parameters)
{
    return std::make_unique<QuicListener>(std::move(endpoint), std::move(parameters));
}

} // namespace pelorin
