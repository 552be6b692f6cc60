#include "PelorinHost/Session/VideoSender.h"

#include "PelorinCore/Wire/FrameCodec.h"

namespace pelorin {

VideoSender::VideoSender(SessionOutlet& newOutlet, SessionStatistics& newStatistics, RateAdaptation& newRate,
    const SerialQueue& newClock, bool newStampsFrames)
    : outlet(newOutlet),
      statistics(newStatistics),
      rate(newRate),
      clock(newClock),
      stampsFrames(newStampsFrames)
{
}

void VideoSender::setFormat(VideoCodec codec, std::vector<Bytes> parameterSets)
{
    format = message::VideoFormat{codec, std::move(parameterSets)};
}

void VideoSender::send(EncodedFrame frame)
{
    const auto verdict = gate.admit(frame.isKeyframe);
    if (verdict == VideoGate::Verdict::send) return transmit(std::move(frame));
    statistics.dropped();
    rate.dropped();
    requestIf(verdict == VideoGate::Verdict::dropAndRequestKeyframe);
}

void VideoSender::transmit(EncodedFrame frame)
{
    const FrameStamps stamps = stampsOf(frame, clock.now());
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
}

void VideoSender::keyframeWanted()
{
    requestIf(gate.keyframeWanted());
}

void VideoSender::tick()
{
    requestIf(gate.tick());
}

void VideoSender::requestIf(bool isWanted)
{
    if (isWanted && onKeyframeWanted) onKeyframeWanted();
}

} // namespace pelorin
