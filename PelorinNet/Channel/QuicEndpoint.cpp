#include "PelorinNet/Channel/QuicEndpoint.h"

#include "PelorinNet/Channel/PelorinQUIC.h"

#include <algorithm>
#include <gnutls/crypto.h>

namespace pelorin {
namespace {

constexpr std::size_t roomSize = PelorinQUIC::largestDatagram;
constexpr std::size_t answerEvery = 32; // datagrams
constexpr std::size_t roomCount = 48; // what one system call takes, about 64 KiB

// What is left of a connection: its last word, said again to who has not heard it, more and more seldom.
class Farewell final : public QuicReceiver {
public:
    Farewell(QuicEndpoint& newEndpoint, Bytes newLastWord, const SocketAddress& newTo)
        : endpoint(newEndpoint),
          lastWord(std::move(newLastWord)),
          to(newTo)
    {
    }
    void receive(ByteView, const SocketAddress&) override
    {
        if (++heard < nextAnswer) return;
        nextAnswer *= 2;
        if (!lastWord.empty()) endpoint.send(lastWord, to);
    }
    void answer() override {}
    void settle() override {}
    void becomeUnreachable(const SocketAddress&) override {}

private:
    QuicEndpoint& endpoint; // which outlives us: whoever owns us owns it too
    const Bytes lastWord;
    const SocketAddress to; // never where a datagram claims to come from
    std::uint64_t heard = 0, nextAnswer = 1;
};

} // namespace

QuicConnectionID QuicConnectionID::random()
{
    QuicConnectionID id;
    id.size = ownSize;
    require(gnutls_rnd(GNUTLS_RND_NONCE, id.bytes.data(), ownSize) == GNUTLS_E_SUCCESS, "no random bytes");
    return id;
}

QuicConnectionID QuicConnectionID::of(ByteView bytes)
{
    QuicConnectionID id;
    require(bytes.size() <= id.bytes.size(), "a connection ID is short");
    std::ranges::copy(bytes, id.bytes.begin());
    id.size = std::uint8_t(bytes.size());
    return id;
}

ngtcp2_cid QuicConnectionID::cid() const
{
    ngtcp2_cid made{};
    made.datalen = size;
    std::ranges::copy(view(), made.data);
    return made;
}

Result<std::shared_ptr<QuicEndpoint>, NetError> QuicEndpoint::open(
    QueueRef queue, const std::string& host, std::uint16_t port)
{
    auto socket = UDPSocket::open(host, port, queue);
    if (!socket) return std::unexpected(std::move(socket).error());
    return std::shared_ptr<QuicEndpoint>(new QuicEndpoint(std::move(queue), std::move(*socket)));
}

QuicEndpoint::QuicEndpoint(QueueRef newQueue, std::unique_ptr<UDPSocket> newSocket)
    : queue(std::move(newQueue)),
      socket(std::move(newSocket))
{
    socket->onReceive
        = [this](ByteView datagram, const SocketAddress& source) { received(datagram, source); };
    socket->onBatchEnd = [this] { endBatch(); };
    socket->onUnreachable = [this](const SocketAddress& peer, int) { becameUnreachable(peer); };
}

void QuicEndpoint::add(const QuicConnectionID& id, std::weak_ptr<QuicReceiver> receiver)
{
    receivers[id] = std::move(receiver);
}

void QuicEndpoint::remove(const QuicConnectionID& id)
{
    receivers.erase(id);
}

void QuicEndpoint::received(ByteView datagram, const SocketAddress& source)
{
    if (datagram.empty()) return; // at which the library would stop the program
    ngtcp2_version_cid header{};
    const int decoded
        = ngtcp2_pkt_decode_version_cid(&header, datagram.data(), datagram.size(), QuicConnectionID::ownSize);
    if (decoded != 0 && decoded != NGTCP2_ERR_VERSION_NEGOTIATION) return;
    if (header.dcidlen <= NGTCP2_MAX_CIDLEN) {
        const auto found = receivers.find(QuicConnectionID::of({header.dcid, header.dcidlen}));
        if (const auto receiver = found == receivers.end() ? nullptr : found->second.lock()) {
            receiver->receive(datagram, source);
            touch(receiver);
            // A batch can be long, and the peer waits to hear how much of it has come.
            if (++batchSize % answerEvery == 0) receiver->answer();
            return;
        }
    }
    if (onUnknown) onUnknown(datagram, source, header);
}

void QuicEndpoint::touch(std::weak_ptr<QuicReceiver> receiver)
{
    const auto isSame
        = [&](const auto& other) { return !other.owner_before(receiver) && !receiver.owner_before(other); };
    if (std::ranges::none_of(touched, isSame)) touched.push_back(std::move(receiver));
}

void QuicEndpoint::endBatch()
{
    const auto self = shared_from_this();
    for (const auto& weak : std::exchange(touched, {}))
        if (const auto receiver = weak.lock()) receiver->settle();
}

void QuicEndpoint::becameUnreachable(const SocketAddress& peer)
{
    for (const auto& [id, weak] : receivers)
        if (const auto receiver = weak.lock()) {
            receiver->becomeUnreachable(peer);
            touch(receiver);
        }
    endBatch();
}

void QuicEndpoint::sayFarewell(
    const std::vector<QuicConnectionID>& ids, Bytes lastWord, const SocketAddress& to, Duration time)
{
    const auto farewell = std::make_shared<Farewell>(*this, std::move(lastWord), to);
    for (const auto& id : ids) add(id, farewell);
    queue->postAfter(time, [self = shared_from_this(), farewell, ids] {
        for (const auto& id : ids) self->remove(id);
    });
}

std::span<std::uint8_t> QuicEndpoint::room()
{
    if (used == roomCount) flush();
    arena.resize(roomCount * roomSize);
    return std::span(arena).subspan(used * roomSize, roomSize);
}

void QuicEndpoint::enqueue(std::size_t size, const SocketAddress& to)
{
    socket->enqueue({}, ByteView(arena).subspan(used * roomSize, size), {}, to);
    ++used;
}

void QuicEndpoint::flush()
{
    if (used == 0) return;
    used = 0;
    socket->flush();
}

} // namespace pelorin
