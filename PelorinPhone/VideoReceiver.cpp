#include "PelorinPhone/VideoReceiver.h"

#include "PelorinNet/Log.h"

namespace pelorin {

// The decode queue's side: the decoder, and whether it has a picture that deltas can build on.
struct VideoReceiver::Decoding {
    VideoDecoder decoder;
    bool awaitingKeyframe = true;
    bool isFailing = false; // so that a bad stream is logged once and not with every frame
    Log log{"decoder"};

    void setFormat(const message::VideoFormat& format)
    {
        if (auto set = decoder.setFormat(format.codec, format.parameterSets); !set) fail(set.error());
    }

    std::optional<DecodedPicture> decode(message::VideoFrame frame)
    {
        if (awaitingKeyframe && !frame.isKeyframe) return std::nullopt;
        auto picture = decoder.decode(std::move(frame.data));
        if (!picture) return fail(picture.error()), std::nullopt;
        awaitingKeyframe = false;
        isFailing = false;
        return std::move(*picture);
    }

    void fail(const DecodeError& error)
    {
        awaitingKeyframe = true;
        if (!isFailing) log.warning("{}; waiting for a keyframe", error.description);
        isFailing = true;
    }
};

struct VideoReceiver::Outcome {
    std::optional<DecodedPicture> picture;
    bool isKeyframe = false;
    std::uint64_t ptsMicros = 0;
    std::optional<FrameStamps> stamps;
    SteadyTime arrivedAt;
    SteadyTime decodedAt;
};

VideoReceiver::VideoReceiver(QueueRef newQueue, QueueRef newDecodeQueue)
    : queue(std::move(newQueue)),
      decodeQueue(std::move(newDecodeQueue)),
      decoding(std::make_shared<Decoding>())
{
}

VideoReceiver::~VideoReceiver()
{
    queue->assertCurrent();
    decodeQueue->post([last = std::move(decoding)] {}); // behind whatever is still being decoded
}

void VideoReceiver::setFormat(message::VideoFormat format)
{
    queue->assertCurrent();
    codec = format.codec;
    decodeQueue->post([target = decoding, format = std::move(format)] { target->setFormat(format); });
}

void VideoReceiver::receive(message::VideoFrame frame)
{
    queue->assertCurrent();
    if (waiting >= maxWaiting)
        skipping = true;
    else if (frame.isKeyframe)
        skipping = false;
    if (skipping) return drop();

    ++waiting;
    Outcome outcome;
    outcome.isKeyframe = frame.isKeyframe;
    outcome.ptsMicros = frame.ptsMicros;
    outcome.stamps = FrameStamps::parse(codec, frame.data);
    outcome.arrivedAt = queue->now();
    decodeQueue->post([this, target = decoding, home = queue, clock = decodeQueue, alive = lifetime.watch(),
                          outcome = std::move(outcome), frame = std::move(frame)]() mutable {
        outcome.picture = target->decode(std::move(frame));
        outcome.decodedAt = clock->now();
        home->post([this, alive, outcome = std::move(outcome)]() mutable {
            if (alive) finished(std::move(outcome));
        });
    });
}

void VideoReceiver::finished(Outcome outcome)
{
    --waiting;
    if (!outcome.picture) return drop();
    if (onPicture)
        onPicture({std::move(*outcome.picture), outcome.isKeyframe, outcome.ptsMicros, outcome.stamps,
            outcome.arrivedAt, outcome.decodedAt});
}

void VideoReceiver::drop()
{
    const auto alive = lifetime.watch();
    if (onDrop) onDrop();
    if (alive && onKeyframeNeeded) onKeyframeNeeded();
}

} // namespace pelorin
