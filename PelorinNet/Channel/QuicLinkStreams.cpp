// The streams of a link: between the library, which calls when bytes come and go, and the channels, each on a
// queue of its own.
#include "PelorinNet/Channel/QuicChannel.h"

#include <algorithm>

namespace pelorin {
namespace {

constexpr auto finishTimeout = std::chrono::seconds(1);
constexpr std::uint64_t noReader = 0, abandoned = 1; // application error codes of streams

} // namespace

std::unique_ptr<Channel> QuicLink::openStream()
{
    auto stream = std::make_shared<QuicStream>();
    auto channel = channelOf(stream);
    if (ended)
        stream->end = ended;
    else
        waiting.push_back(std::move(stream));
    hadStreams = true;
    queue()->post([self = shared_from_this()] { self->settle(); });
    return channel;
}

std::unique_ptr<Channel> QuicLink::channelOf(const StreamRef& stream)
{
    return std::make_unique<QuicChannel>(shared_from_this(), stream, remote, peerFingerprint());
}

void QuicLink::openWaiting()
{
    if (!connection || !ready) return;
    while (!waiting.empty()) {
        const StreamRef stream = waiting.front();
        if (ngtcp2_conn_open_bidi_stream(connection.get(), &stream->id, nullptr) != 0) return;
        waiting.pop_front();
        streams.emplace(stream->id, stream);
        keepAliveWhileNeeded();
        tellPeer(*stream);
        if (stream->ignoresInput) stopReading(*stream);
    }
}

bool QuicLink::hasLiveStreams() const
{
    return !waiting.empty() || !unclaimed.empty()
        || std::ranges::any_of(streams, [](const auto& entry) { return !entry.second->isOver; });
}

void QuicLink::keepAliveWhileNeeded()
{
    constexpr auto period = std::chrono::seconds(5); // two may be lost before the idle timeout
    if (!connection) return;
    const auto needed = hasLiveStreams() ? std::chrono::nanoseconds(period) : std::chrono::nanoseconds(0);
    ngtcp2_conn_set_keep_alive_timeout(connection.get(), ngtcp2_duration(needed.count()));
}

void QuicLink::attach(const StreamRef& stream, QuicStream::Attached attached)
{
    stream->attached = std::move(attached);
    tellPeer(*stream);
    report(stream);
}

void QuicLink::tellPeer(const QuicStream& stream)
{
    auto fingerprint = peerFingerprint();
    if (!fingerprint || !stream.attached) return;
    const auto& [channel, queue, alive] = *stream.attached;
    queue->post([channel = channel, alive = alive, peer = std::move(*fingerprint)]() mutable {
        if (alive) channel->provePeer(std::move(peer));
    });
}

void QuicLink::send(const StreamRef& stream, std::vector<Bytes> parts)
{
    stream->owesReport = true;
    if (stream->isShut || stream->isOver || !connection) return;
    stream->output.append(std::move(parts));
    settle();
}

void QuicLink::consumed(const StreamRef& stream, std::size_t count)
{
    credit(*stream, count);
    settle();
}

void QuicLink::finish(const StreamRef& stream)
{
    stream->attached.reset();
    if (stream->isOver || stream->isFinishing || !connection) return;
    stream->isFinishing = true;
    stopReading(*stream);
    stream->finishDeadline = queue()->after(finishTimeout, [this, weak = std::weak_ptr(stream)] {
        if (const auto late = weak.lock()) abandon(late);
    });
    settle();
}

void QuicLink::abandon(const StreamRef& stream)
{
    const auto self = shared_from_this();
    stream->attached.reset();
    stream->finishDeadline = {};
    if (stream->isOver) return;
    stream->isOver = true;
    stream->isShut = true;
    stream->output.drop();
    std::erase(waiting, stream);
    std::erase(unclaimed, stream);
    if (connection && stream->id != QuicStream::notOpened)
        ngtcp2_conn_shutdown_stream(connection.get(), stream->id, abandoned);
    stopReading(*stream);
    keepAliveWhileNeeded();
    settle();
}

// Nobody reads any more. That is the peer's to know: it need not send what is left.
void QuicLink::stopReading(QuicStream& stream)
{
    stream.ignoresInput = true;
    stream.input.clear();
    if (!connection || stream.id == QuicStream::notOpened) return;
    ngtcp2_conn_shutdown_stream_read(connection.get(), stream.id, noReader);
    credit(stream, stream.uncredited);
}

// Gives the peer's window count bytes back.
void QuicLink::credit(QuicStream& stream, std::uint64_t count)
{
    count = std::min(count, stream.uncredited);
    stream.uncredited -= count;
    if (!connection || count == 0) return;
    if (streams.contains(stream.id)) ngtcp2_conn_extend_max_stream_offset(connection.get(), stream.id, count);
    ngtcp2_conn_extend_max_offset(connection.get(), count);
}

void QuicLink::streamOpened(std::int64_t id)
{
    const auto stream = std::make_shared<QuicStream>();
    stream->id = id;
    stream->isAnnounced = true;
    streams.emplace(id, stream);
    unclaimed.push_back(stream);
    hadStreams = true;
    keepAliveWhileNeeded();
}

void QuicLink::streamReceived(std::int64_t id, ByteView bytes, bool isEnd)
{
    const auto found = streams.find(id);
    if (found == streams.end()) return;
    QuicStream& stream = *found->second;
    stream.uncredited += bytes.size();
    if (stream.ignoresInput) return credit(stream, bytes.size());
    stream.input.insert(stream.input.end(), bytes.begin(), bytes.end());
    if (isEnd && !stream.end) stream.end = QuicEnd{};
}

void QuicLink::streamAcknowledged(std::int64_t id, std::uint64_t upTo)
{
    if (const auto found = streams.find(id); found != streams.end()) found->second->output.acknowledge(upTo);
}

void QuicLink::streamReset(std::int64_t id)
{
    const auto found = streams.find(id);
    if (found != streams.end() && !found->second->end)
        found->second->end = QuicEnd{NetError{"QUIC: the peer gave the stream up"}, false};
}

// Both ways are over, as far as the library is concerned. Input may still wait for its channel.
void QuicLink::streamClosed(std::int64_t id)
{
    const auto found = streams.find(id);
    if (found == streams.end()) return;
    const StreamRef stream = found->second;
    if (!stream->end) stream->end = QuicEnd{};
    stream->isShut = true;
    stream->isOver = true;
    stream->finishDeadline = {};
    report(stream);
    streams.erase(found);
    // Nobody will read what the peer has given up itself: it must not fill our window, nor our memory.
    if (std::erase(unclaimed, stream) > 0) credit(*stream, stream->uncredited);
    if (!ngtcp2_conn_is_local_stream(connection.get(), id))
        ngtcp2_conn_extend_max_streams_bidi(connection.get(), 1);
    keepAliveWhileNeeded();
}

void QuicLink::reportStreams()
{
    for (const auto& [id, stream] : streams) report(stream);
}

// Tells the channel what there is to tell, in the order in which it matters. Calls nobody: all are tasks.
void QuicLink::report(const StreamRef& stream)
{
    const auto attached = stream->attached;
    if (!attached) return;
    const auto& [channel, queue, alive] = *attached;
    const std::uint64_t sent = stream->output.sentTotal();
    if (std::exchange(stream->owesReport, false) || sent != stream->reportedSent) {
        stream->reportedSent = sent;
        // Of a stream that the peer wants no more of, nothing goes on.
        if (!stream->isShut)
            queue->post([channel = channel, alive = alive, sent] {
                if (alive) channel->sent(sent);
            });
    }
    if (!stream->input.empty())
        queue->post([channel = channel, alive = alive, bytes = std::exchange(stream->input, {}), stream,
                        home = home, weak = weak_from_this()] {
            if (alive) channel->received(bytes);
            home->post([stream, weak, count = bytes.size()] {
                if (const auto self = weak.lock()) self->consumed(stream, count);
            });
        });
    if (const auto end = stream->end) {
        stream->attached.reset();
        queue->post([channel = channel, alive = alive, end = *end] {
            if (alive) channel->closed(end);
        });
    }
}

} // namespace pelorin
