#include "PelorinNet/Channel/QuicLink.h"

#include "PelorinNet/Channel/CallOut.h"
#include "PelorinNet/Channel/QuicCallbacks.h"
#include "PelorinNet/Channel/QuicPath.h"

#include <algorithm>

namespace pelorin {
namespace {

constexpr auto handshakeTimeout = std::chrono::seconds(10);
constexpr std::uint64_t streamWindow = 4 << 20; // bytes; 280 Mbit/s at 120 ms
constexpr std::uint64_t connectionWindow = 2 * streamWindow; // what one connection can make us hold
constexpr std::uint64_t maxPeerStreams = 16; // open at once
constexpr std::uint64_t maxConnectionIDs = 8; // that we keep of the peer's: each change of path takes one
constexpr ngtcp2_duration maxLateness = NGTCP2_MILLISECONDS; // of a timer, that is made up for
constexpr std::size_t maxBurst = 48; // datagrams written before others have their turn

ngtcp2_cc_algo algorithmOf(QuicCongestion congestion)
{
    switch (congestion) {
    case QuicCongestion::cubic:
        return NGTCP2_CC_ALGO_CUBIC;
    case QuicCongestion::bbr:
        return NGTCP2_CC_ALGO_BBR;
    case QuicCongestion::bbr2:
        break;
    }
    return NGTCP2_CC_ALGO_BBR2;
}

ngtcp2_duration durationOf(Duration duration)
{
    return ngtcp2_duration(std::chrono::nanoseconds(duration).count());
}

ngtcp2_settings settingsOf(const QuicParameters& parameters, ngtcp2_tstamp now)
{
    ngtcp2_settings settings;
    ngtcp2_settings_default(&settings);
    settings.initial_ts = now;
    settings.cc_algo = algorithmOf(parameters.congestion);
    settings.max_tx_udp_payload_size = PelorinQUIC::largestDatagram;
    // Datagrams keep to 1200 bytes, which every path carries. Probing for more would have to be done anew
    // whenever the path changes, of which QUIC does not hear.
    settings.no_pmtud = 1;
    settings.handshake_timeout = durationOf(handshakeTimeout);
    return settings;
}

ngtcp2_transport_params transportParameters()
{
    ngtcp2_transport_params made;
    ngtcp2_transport_params_default(&made);
    made.initial_max_stream_data_bidi_local = streamWindow;
    made.initial_max_stream_data_bidi_remote = streamWindow;
    made.initial_max_data = connectionWindow;
    made.initial_max_streams_bidi = maxPeerStreams;
    made.max_idle_timeout = durationOf(PelorinQUIC::idleTimeout);
    made.max_udp_payload_size = PelorinQUIC::largestDatagram;
    made.active_connection_id_limit = maxConnectionIDs;
    return made;
}

} // namespace

std::shared_ptr<QuicLink> QuicLink::connect(std::shared_ptr<QuicEndpoint> endpoint, const SocketAddress& to,
    std::shared_ptr<const QuicParameters> parameters)
{
    const std::shared_ptr<QuicLink> link(new QuicLink(std::move(endpoint), to, std::move(parameters)));
    const auto own = QuicConnectionID::random();
    const ngtcp2_cid scid = own.cid(), dcid = QuicConnectionID::random().cid();
    const auto settings = settingsOf(*link->parameters, link->now());
    const auto transport = transportParameters();
    QuicPath path(link->endpoint->localAddress(), to, 0);
    const ngtcp2_path view = path.view();
    ngtcp2_conn* made = nullptr;
    require(ngtcp2_conn_client_new(&made, &dcid, &scid, &view, NGTCP2_PROTO_VER_V1, &quicCallbacks(),
                &settings, &transport, nullptr, link.get())
            == 0,
        "out of memory");
    link->adopt(made, own);
    return link;
}

std::shared_ptr<QuicLink> QuicLink::accept(std::shared_ptr<QuicEndpoint> endpoint, const SocketAddress& from,
    const ngtcp2_pkt_hd& header, std::shared_ptr<const QuicParameters> parameters)
{
    const std::shared_ptr<QuicLink> link(new QuicLink(std::move(endpoint), from, std::move(parameters)));
    const auto own = QuicConnectionID::random();
    const ngtcp2_cid scid = own.cid();
    const auto settings = settingsOf(*link->parameters, link->now());
    auto transport = transportParameters();
    transport.original_dcid = header.dcid;
    transport.stateless_reset_token_present = 1;
    const ByteView resetKey = link->parameters->resetKey.view();
    require(ngtcp2_crypto_generate_stateless_reset_token(
                transport.stateless_reset_token, resetKey.data(), resetKey.size(), &scid)
            == 0,
        "out of memory");
    QuicPath path(link->endpoint->localAddress(), from, 0);
    const ngtcp2_path view = path.view();
    ngtcp2_conn* made = nullptr;
    require(ngtcp2_conn_server_new(&made, &header.scid, &scid, &view, header.version, &quicCallbacks(),
                &settings, &transport, nullptr, link.get())
            == 0,
        "out of memory");
    link->adopt(made, own);
    // Until it has heard from us, the client uses the ID that it made up.
    link->ids.push_back(QuicConnectionID::of(header.dcid));
    link->endpoint->add(link->ids.back(), link);
    return link;
}

QuicLink::QuicLink(std::shared_ptr<QuicEndpoint> newEndpoint, const SocketAddress& newRemote,
    std::shared_ptr<const QuicParameters> newParameters)
    : home(newEndpoint->queue),
      endpoint(std::move(newEndpoint)),
      parameters(std::move(newParameters)),
      remote(newRemote),
      tls(parameters)
{
}

QuicLink::~QuicLink()
{
    for (const auto& id : ids) endpoint->remove(id); // none, but when the queues were stopped first
}

void QuicLink::adopt(ngtcp2_conn* made, const QuicConnectionID& id)
{
    connection.reset(made);
    tls.secure(made);
    ids.push_back(id);
    endpoint->add(id, weak_from_this());
}

void QuicLink::takeUnknownDatagrams()
{
    endpoint->onUnknown
        = [weak = weak_from_this()](ByteView datagram, const SocketAddress& source, const auto&) {
              const auto self = weak.lock();
              if (!self || !self->connection) return;
              self->receive(datagram, source);
              self->endpoint->touch(self);
          };
}

void QuicLink::setOwner(PelorinQUIC::Connection& connectionOfUser, const Lifetime::Watch& alive)
{
    owner = Owner{&connectionOfUser, alive};
    onHandshakeEnd = nullptr;
}

ngtcp2_tstamp QuicLink::now() const
{
    return durationOf(home->now().time_since_epoch());
}

void QuicLink::receive(ByteView datagram, const SocketAddress& source)
{
    if (!connection || fault != 0) return;
    read(datagram, source);
    if (const bool asks = tls.awaitsVerdict(); asks && !suspended)
        suspended.emplace(Bytes(datagram.begin(), datagram.end()), source);
}

void QuicLink::read(ByteView datagram, const SocketAddress& source)
{
    QuicPath path(endpoint->localAddress(), source, pathEpoch);
    const ngtcp2_path view = path.view();
    const ngtcp2_pkt_info info{};
    fault = ngtcp2_conn_read_pkt(connection.get(), &view, &info, datagram.data(), datagram.size(), now());
}

void QuicLink::answer()
{
    if (fault == 0) write();
}

void QuicLink::settle()
{
    const auto self = shared_from_this();
    if (auto fingerprint = tls.takeQuestion())
        QuicParameters::ask(
            parameters, std::move(*fingerprint), queue(), [this, alive = lifetime.watch()](bool isAccepted) {
                if (alive) judged(isAccepted);
            });
    if (fault != 0) stopBecause(fault);
    openWaiting();
    write();
    reportStreams();
    callOwner();
}

// The handshake goes on where it was suspended. The library takes note of that with the next datagram, which
// may never come, so it is given the one before once more; the rest of that is a duplicate to it.
void QuicLink::judged(bool isAccepted)
{
    tls.decide(isAccepted);
    if (!connection) return;
    if (!tls.resume())
        fault = NGTCP2_ERR_CRYPTO;
    else if (suspended)
        read(suspended->first, suspended->second);
    suspended.reset();
    settle();
}

// Who completes a handshake without having been judged, or without our protocol, has none.
int QuicLink::handshakeCompleted()
{
    if (!tls.hasProvenPeer()) return NGTCP2_ERR_CALLBACK_FAILURE;
    if (parameters->isServer) ready = true; // of a server, that is the confirmation
    mayOpenStreams = true;
    return 0;
}

void QuicLink::becomeUnreachable(const SocketAddress& peer)
{
    // Only an answer to a first word can be believed: a path that fails later may be replaced underneath.
    if (!parameters->isServer && peer == remote && !tls.fingerprint() && fault == 0)
        fault = NGTCP2_ERR_NO_VIABLE_PATH;
}

void QuicLink::write()
{
    if (!connection) return;
    const std::size_t quantum = ngtcp2_conn_get_send_quantum(connection.get());
    const std::size_t datagram = ngtcp2_conn_get_path_max_tx_udp_payload_size(connection.get());
    ngtcp2_path_storage path;
    ngtcp2_path_storage_zero(&path);
    bool hasSent = false;
    // A burst counts from when it was due, so that late timers don't slow the stream down.
    const ngtcp2_tstamp current = now();
    const ngtcp2_tstamp burstTime
        = std::clamp(ngtcp2_conn_get_expiry(connection.get()), current - maxLateness, current);
    for (std::size_t left = std::clamp<std::size_t>(quantum / datagram, 1, maxBurst); left > 0;) {
        QuicStream* const stream = nextToWrite();
        const ngtcp2_ssize size = writePacket(stream, endpoint->room(), path);
        // It does not count: on a slow line a burst is one datagram, and it is somebody else's.
        if (size == NGTCP2_ERR_STREAM_DATA_BLOCKED || size == NGTCP2_ERR_STREAM_SHUT_WR) continue;
        if (size < 0) {
            endpoint->flush();
            return stopBecause(int(size));
        }
        if (size == 0) break;
        endpoint->enqueue(std::size_t(size), QuicPathAddress::realOf(path.path.remote));
        hasSent = true;
        --left;
    }
    // Not before: it would hold back the second flight of the handshake.
    if (hasSent && ngtcp2_conn_get_handshake_completed(connection.get()))
        ngtcp2_conn_update_pkt_tx_time(connection.get(), burstTime);
    endpoint->flush();
    for (auto& [id, stream] : streams) stream->isBlocked = false;
    armTimer();
}

// The stream whose turn it is among those that have something to say.
QuicStream* QuicLink::nextToWrite()
{
    const auto wants = [](const auto& entry) {
        const QuicStream& stream = *entry.second;
        if (stream.isShut || stream.isBlocked) return false;
        return !stream.isAnnounced || stream.output.unsent() > 0 || (stream.isFinishing && !stream.isEndSent);
    };
    auto found = std::find_if(streams.upper_bound(lastWritten), streams.end(), wants);
    if (found == streams.end()) found = std::ranges::find_if(streams, wants);
    if (found == streams.end()) return nullptr;
    lastWritten = found->first;
    return found->second.get();
}

ngtcp2_ssize QuicLink::writePacket(
    QuicStream* stream, std::span<std::uint8_t> room, ngtcp2_path_storage& path)
{
    constexpr std::size_t maxViews = 16; // of one datagram
    ngtcp2_pkt_info info{};
    std::array<ngtcp2_vec, maxViews> pieces;
    std::size_t count = 0, offered = 0;
    std::uint32_t flags = NGTCP2_WRITE_STREAM_FLAG_NONE;
    if (stream) {
        for (const ByteView piece : stream->output.front(maxViews)) {
            pieces[count++] = {const_cast<std::uint8_t*>(piece.data()), piece.size()};
            offered += piece.size();
        }
        if (stream->isFinishing && offered == stream->output.unsent()) flags = NGTCP2_WRITE_STREAM_FLAG_FIN;
    }
    ngtcp2_ssize taken = -1;
    const ngtcp2_ssize size = ngtcp2_conn_writev_stream(connection.get(), &path.path, &info, room.data(),
        room.size(), &taken, flags, stream ? stream->id : -1, pieces.data(), count, now());
    if (!stream) return size;
    if (size == NGTCP2_ERR_STREAM_DATA_BLOCKED) stream->isBlocked = true;
    if (size == NGTCP2_ERR_STREAM_SHUT_WR || size == NGTCP2_ERR_STREAM_NOT_FOUND) {
        stream->isShut = true; // the peer wants to hear no more
        stream->output.drop();
        return NGTCP2_ERR_STREAM_SHUT_WR;
    }
    if (taken < 0) return size;
    stream->isAnnounced = true;
    stream->output.markSent(std::size_t(taken));
    if (flags == NGTCP2_WRITE_STREAM_FLAG_FIN && std::size_t(taken) == offered) stream->isEndSent = true;
    return size;
}

// A timer that is early is left alone, since most are moved on before they are due.
void QuicLink::armTimer()
{
    if (!connection) return;
    constexpr Duration shortest = std::chrono::microseconds(1); // never the same instant over and over
    constexpr Duration untilClaimed = std::chrono::milliseconds(20);
    const SteadyTime current = queue()->now();
    const ngtcp2_tstamp expiry = ngtcp2_conn_get_expiry(connection.get());
    SteadyTime due = expiry == UINT64_MAX ? SteadyTime::max() : SteadyTime(std::chrono::nanoseconds(expiry));
    if (!unclaimed.empty()) due = std::min(due, current + untilClaimed);
    if (due == SteadyTime::max()) return timer.cancel();
    if (timer && timerDue <= due) return;
    timerDue = std::max(due, current + shortest);
    timer = queue()->after(timerDue - current, [this] { timerFired(); });
}

void QuicLink::timerFired()
{
    timer = {};
    if (!connection) return;
    if (fault == 0) fault = ngtcp2_conn_handle_expiry(connection.get(), now());
    settle();
}

void QuicLink::resetCongestion()
{
    if (!connection || !ready) return;
    // A client begins to send from there, a server takes what arrives for something from there.
    QuicPath path(endpoint->localAddress(), remote, pathEpoch + 1);
    const ngtcp2_path view = path.view();
    if (!parameters->isServer
        && ngtcp2_conn_initiate_immediate_migration(connection.get(), &view, now()) != 0)
        return;
    ++pathEpoch;
    // Something to say there at once: what was lost on the old path would wait for its own timers.
    for (const auto& [id, stream] : streams)
        if (!stream->isShut && !stream->isOver && !stream->isFinishing) stream->isAnnounced = false;
    settle();
}

void QuicLink::makeConnectionID(ngtcp2_cid& id, std::uint8_t* resetToken)
{
    const auto made = QuicConnectionID::random();
    id = made.cid();
    const ByteView resetKey = parameters->resetKey.view();
    require(
        ngtcp2_crypto_generate_stateless_reset_token(resetToken, resetKey.data(), resetKey.size(), &id) == 0,
        "out of memory");
    ids.push_back(made);
    endpoint->add(made, weak_from_this());
}

void QuicLink::retireConnectionID(const ngtcp2_cid& id)
{
    const auto retired = QuicConnectionID::of(id);
    endpoint->remove(retired);
    std::erase(ids, retired);
}

std::optional<Bytes> QuicLink::peerFingerprint() const
{
    return ready ? tls.fingerprint() : std::nullopt;
}

Duration QuicLink::smoothedRtt() const
{
    if (!connection) return {};
    ngtcp2_conn_stat statistics;
    ngtcp2_conn_get_conn_stat(connection.get(), &statistics);
    return std::chrono::nanoseconds(statistics.smoothed_rtt);
}

void QuicLink::callOwner()
{
    const auto self = shared_from_this();
    if ((ready || ended) && onHandshakeEnd) std::exchange(onHandshakeEnd, nullptr)();
    if (!owner) return;
    const auto [told, alive] = *owner; // each of whose callbacks may destroy it
    if (ready && !std::exchange(isReadyTold, true)) callOut(told->onReady, alive);
    while (alive && told->onStream && !unclaimed.empty()) {
        const StreamRef stream = std::move(unclaimed.front());
        unclaimed.pop_front();
        callOut(told->onStream, alive, channelOf(stream));
    }
    if (alive && hadStreams && !hasLiveStreams()) {
        hadStreams = false;
        callOut(told->onLastStreamEnd, alive);
    }
    if (alive && ended && !std::exchange(isEndTold, true) && told->onClosed)
        std::exchange(told->onClosed, nullptr)(ended->error);
}

} // namespace pelorin
