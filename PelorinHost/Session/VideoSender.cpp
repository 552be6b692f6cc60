#include "PelorinHost/Session/VideoSender.h"

#include "PelorinCore/Wire/FrameCodec.h"

namespace pelorin {
namespace {

using namespace std::chrono_literals;

// What the wire can carry; no encoder gets near it, yet none may bring us down.
constexpr std::size_t mostParameterSets = 255;
constexpr std::size_t largestAccessUnit = maxPayloadSize - 1024; // the rest is for what stands around it

constexpr auto busyPause = 40ms; // before a repeat is tried again that found the phone still taking frames

} // namespace

VideoSender::VideoSender(SessionOutlet& newOutlet, SessionStatistics& newStatistics, RateAdaptation& newRate,
    QueueRef newQueue, bool newStampsFrames)
    : outlet(newOutlet),
      statistics(newStatistics),
      rate(newRate),
      queue(std::move(newQueue)),
      stampsFrames(newStampsFrames)
{
}

void VideoSender::setFormat(VideoCodec codec, std::vector<Bytes> parameterSets)
{
    if (parameterSets.size() > mostParameterSets) parameterSets.resize(mostParameterSets);
    format = message::VideoFormat{codec, std::move(parameterSets)};
}

void VideoSender::send(EncodedFrame frame)
{
    if (frame.data.size() > largestAccessUnit) return dropped();
    const auto verdict = gate.admit(frame.isKeyframe);
    if (verdict == VideoGate::Verdict::send) return transmit(std::move(frame));
    dropped();
    requestIf(verdict == VideoGate::Verdict::dropAndRequestKeyframe);
}

void VideoSender::dropped()
{
    statistics.dropped();
    rate.dropped();
}

void VideoSender::transmit(EncodedFrame frame)
{
    const FrameStamps stamps = stampsOf(frame, queue->now());
    Bytes stampsSEI;
    if (stampsFrames && format) stampsSEI = stamps.encodeSEI(format->codec);
    const std::size_t dataSize = stampsSEI.size() + frame.data.size();

    std::vector<Bytes> parts;
    parts.reserve(4);
    if (frame.isKeyframe && format) parts.push_back(encodeFrame(*format));
    parts.push_back(encodeVideoFrameHead(frame.isKeyframe, frame.ptsMicros, dataSize));
    if (!stampsSEI.empty()) parts.push_back(std::move(stampsSEI));
    parts.push_back(std::move(frame.data));

    statistics.sent(dataSize, stamps);
    outlet.sendVideo(std::move(parts), [this, alive = lifetime.watch()] {
        if (alive) requestIf(gate.sent());
    });
    repeatAfter(refinement.sent(dataSize));
}

void VideoSender::keyframeWanted()
{
    requestIf(gate.keyframeWanted());
}

void VideoSender::tick()
{
    requestIf(gate.tick());
}

void VideoSender::repeatAfter(std::optional<Duration> rest)
{
    nextRepeat = rest ? queue->after(*rest, [this] { repeat(); }) : Subscription();
}

void VideoSender::repeat()
{
    if (gate.pendingVideoSends > 0) return repeatAfter(busyPause);
    refinement.repeatAsked();
    if (onRepeatWanted) onRepeatWanted();
}

void VideoSender::requestIf(bool isWanted)
{
    if (isWanted && onKeyframeWanted) onKeyframeWanted();
}

} // namespace pelorin
