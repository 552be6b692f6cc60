#include "PelorinPhone/PhoneSession.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace pelorin {

namespace {

using namespace std::chrono_literals;

// The host gives a phone up after 5 s without a frame from it; one ping a second leaves room for four to be
// late. The reports that steer the host's bitrate go along, since its rules count reports as seconds.
constexpr Duration tickPeriod = 1s;

// The host answers every ping, so as long a silence means the same on this side.
constexpr Duration silenceLimit = 5s;

// A tick this late means that we slept ourselves, and the host's silence proves nothing.
constexpr Duration stalledTick = 2500ms;

// A keyframe costs as much as dozens of deltas. By the time this is over a requested one has arrived on any
// path worth using, so a request that is still wanted is a new one.
constexpr Duration keyframeRequestInterval = 250ms;

// More than a silent host can leave before the session ends.
constexpr std::size_t maxUnansweredPings = 16;

double millisecondsOf(Duration duration)
{
    return std::chrono::duration<double, std::milli>(duration).count();
}
double secondsOf(Duration duration)
{
    return std::chrono::duration<double>(duration).count();
}

std::uint64_t microsOf(SteadyTime time)
{
    return static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::microseconds>(time.time_since_epoch()).count());
}

double millisecondsOf(std::uint32_t micros)
{
    return micros / 1000.0;
}

std::uint64_t hostSentMicros(std::uint64_t ptsMicros, const FrameStamps& stamps)
{
    return ptsMicros + stamps.captureMicros + stamps.convertMicros + stamps.encodeMicros + stamps.sendMicros;
}

} // namespace

PhoneSession::PhoneSession(
    std::unique_ptr<Channel> newChannel, QueueRef newQueue, QueueRef newDecodeQueue, Settings newSettings)
    : channel(std::move(newChannel)),
      queue(std::move(newQueue)),
      decodeQueue(std::move(newDecodeQueue)),
      settings(std::move(newSettings))
{
    settings.capabilities |= clientCapability::readsFrameStamps;
}

PhoneSession::~PhoneSession()
{
    queue->assertCurrent();
}

void PhoneSession::start()
{
    queue->assertCurrent();
    require(state == State::created, "a phone session starts once");
    state = State::greeting;
    countedSince = lastTickAt = lastHeardAt = queue->now();
    video.emplace(queue, decodeQueue);
    video->onPicture = [this](const ReceivedPicture& picture) { showed(picture); };
    video->onDrop = [this] { statistics.addDrop(); };
    video->onKeyframeNeeded = [this] { needKeyframe(); };
    channel->onBytes = [this](ByteView bytes) { received(bytes); };
    channel->onClosed = [this](const std::optional<NetError>& error) { closed(error); };
    secondTimer = queue->every(tickPeriod, [this] { everySecond(); });

    channel->start(queue);
    write(message::Hello{
        protocolVersion, settings.clientName, settings.viewport, settings.display, settings.capabilities});
    ping();
}

void PhoneSession::send(const Message& message)
{
    queue->assertCurrent();
    if (state != State::running) return;
    write(message);
    const auto* move = std::get_if<message::MouseMove>(&message);
    if (!move) return;
    pointer.moved(move->dx, move->dy);
    pointerChanged();
}

void PhoneSession::leave()
{
    queue->assertCurrent();
    if (state == State::ended) return;
    if (state != State::created) write(message::Bye{});
    close();
}

void PhoneSession::drew(Duration drawing)
{
    statistics.addDrawing(millisecondsOf(drawing));
}

PhoneFigures PhoneSession::total() const
{
    return statistics.total(secondsOf(queue->now() - countedSince));
}

void PhoneSession::restartFigures()
{
    queue->assertCurrent();
    statistics.restartTotal();
    countedSince = queue->now();
}

void PhoneSession::received(ByteView bytes)
{
    lastHeardAt = queue->now();
    auto messages = decoder.feed(bytes);
    if (!messages) return end(End::Kind::protocolError, messages.error().description());
    isAnswered |= !messages->empty();
    const auto alive = lifetime.watch();
    for (Message& message : *messages) {
        if (state == State::greeting)
            handleGreeting(std::move(message));
        else
            handle(std::move(message));
        if (!alive || state == State::ended) return;
    }
}

void PhoneSession::closed(const std::optional<NetError>& error)
{
    const auto failure = PelorinTLS::handshakeFailure(*channel);
    end({.kind = failure ? End::Kind::notLetIn : End::Kind::dropped,
        .text = error ? error->description : "the host closed the connection",
        .handshake = failure});
}

void PhoneSession::handleGreeting(Message message)
{
    if (const auto* error = std::get_if<message::Error>(&message)) return handle(*error);
    if (auto* acknowledgement = std::get_if<message::HelloAck>(&message))
        return handle(std::move(*acknowledgement));
    if (const auto* pong = std::get_if<message::Pong>(&message)) return handle(*pong);
}

void PhoneSession::handle(message::HelloAck message)
{
    if (message.version != protocolVersion)
        return end(End::Kind::incompatible,
            fmt::format(
                "the host speaks protocol version {}, this program {}", message.version, protocolVersion));
    state = State::running;
    if (onHello) onHello(std::move(message.hostName));
}

void PhoneSession::handle(Message message)
{
    const auto pass = [](const auto& callback, auto&& value) {
        if (callback) callback(std::forward<decltype(value)>(value));
    };
    std::visit(
        [&]<class Kind>(Kind& value) {
            if constexpr (std::is_same_v<Kind, message::VideoFrame>) {
                statistics.addArrival(value.data.size());
                video->receive(std::move(value));
            } else if constexpr (std::is_same_v<Kind, message::VideoFormat>) {
                video->setFormat(value);
                pass(onFormat, std::move(value));
            } else if constexpr (std::is_same_v<Kind, message::Pong> || std::is_same_v<Kind, message::Error>)
                handle(value);
            else if constexpr (std::is_same_v<Kind, message::DisplayInfo>) {
                pointer.displayIs(value.displayWidthPt, value.displayHeightPt);
                pass(onDisplayInfo, value);
            } else if constexpr (std::is_same_v<Kind, message::DisplayList>)
                pass(onDisplayList, std::move(value.displays));
            else if constexpr (std::is_same_v<Kind, message::CursorPosition>) {
                pointer.reported(value, queue->now());
                pointerChanged();
            } else if constexpr (std::is_same_v<Kind, message::CursorImage>)
                pass(onCursorImage, std::move(value));
            else if constexpr (std::is_same_v<Kind, message::PathInfo>)
                pass(onPathInfo, std::move(value.description));
            else if constexpr (std::is_same_v<Kind, message::Clipboard>)
                pass(onClipboard, std::move(value.text));
            // The rest is what only a phone sends, or what belongs to pairing and to other kinds of client.
        },
        message);
}

void PhoneSession::handle(const message::Pong& message)
{
    const auto sent = std::ranges::find(unansweredPings, message.id, &SentPing::id);
    if (sent == unansweredPings.end()) return;
    const Duration roundTrip = queue->now() - sent->at;
    unansweredPings.erase(unansweredPings.begin(), std::next(sent));
    statistics.setRoundTrip(millisecondsOf(roundTrip));
    hostClock.addRoundTrip(queue->now(), roundTrip);
}

void PhoneSession::handle(const message::Error& message)
{
    end({.kind = End::Kind::refused, .code = message.code, .text = message.message});
}

void PhoneSession::pointerChanged()
{
    if (onPointer) onPointer(pointer);
}

void PhoneSession::showed(const ReceivedPicture& picture)
{
    StageTimes times;
    std::optional<double> ageMs;
    times[Stage::decode] = millisecondsOf(picture.decodedAt - picture.arrivedAt);
    const auto& stamps = picture.stamps;
    if (stamps) hostClock.addFrame(picture.arrivedAt, hostSentMicros(picture.ptsMicros, *stamps));
    // Nobody waits for a repeat, and there may be more of them than of changes.
    if (stamps && !stamps->isRepeat()) {
        const std::uint64_t sentMicros = hostSentMicros(picture.ptsMicros, *stamps);
        times[Stage::capture] = millisecondsOf(stamps->captureMicros);
        times[Stage::convert] = millisecondsOf(stamps->convertMicros);
        times[Stage::encode] = millisecondsOf(stamps->encodeMicros);
        times[Stage::send] = millisecondsOf(stamps->sendMicros);
        times[Stage::network] = hostClock.millisecondsBetween(sentMicros, picture.arrivedAt);
        ageMs = hostClock.millisecondsBetween(picture.ptsMicros, picture.decodedAt);
    }
    statistics.addPicture(times, ageMs);
    if (onPicture) onPicture(picture);
}

void PhoneSession::needKeyframe()
{
    if (keyframePause) {
        wantsKeyframe = true;
        return;
    }
    write(message::RequestKeyframe{});
    wantsKeyframe = false;
    keyframePause = queue->after(keyframeRequestInterval, [this] { keyframePauseEnded(); });
}

void PhoneSession::keyframePauseEnded()
{
    keyframePause = {};
    if (wantsKeyframe) needKeyframe();
}

void PhoneSession::everySecond()
{
    const SteadyTime now = queue->now();
    const Duration gap = now - std::exchange(lastTickAt, now);
    if (gap > stalledTick)
        lastHeardAt = now;
    else if (now - lastHeardAt > silenceLimit)
        return end(End::Kind::dropped, "the host stopped responding");

    const auto alive = lifetime.watch();
    const PhoneFigures figures = statistics.takeSecond(secondsOf(gap));
    if (state == State::running) report(figures);
    ping();
    if (onSecond) onSecond(figures);
}

// Nothing before the first answer: a round trip of zero would look to the host like an ideal it fell from. A
// ping that is long on its way tells of a blocked path before its answer does.
void PhoneSession::report(const PhoneFigures& figures)
{
    if (!figures.rttMs) return;
    double rttMs = *figures.rttMs;
    if (!unansweredPings.empty())
        rttMs = std::max(rttMs, millisecondsOf(queue->now() - unansweredPings.front().at));
    const auto fps = static_cast<std::uint16_t>(std::clamp(std::lround(figures.fps), 0L, 65535L));
    write(message::ClientReport{static_cast<float>(rttMs), fps});
}

void PhoneSession::ping()
{
    const SteadyTime now = queue->now();
    if (unansweredPings.size() >= maxUnansweredPings) unansweredPings.pop_front();
    unansweredPings.push_back({nextPingID, now});
    write(message::Ping{nextPingID++, microsOf(now)});
}

void PhoneSession::end(End::Kind kind, std::string text)
{
    end({.kind = kind, .text = std::move(text)});
}

void PhoneSession::end(End how)
{
    how.isUnanswered = !isAnswered;
    close();
    if (onEnd) onEnd(std::move(how));
}

void PhoneSession::close()
{
    state = State::ended;
    secondTimer.cancel();
    keyframePause.cancel();
    video.reset();
    channel->finish();
}

void PhoneSession::write(const Message& message)
{
    channel->send(encodeFrame(message));
}

} // namespace pelorin
