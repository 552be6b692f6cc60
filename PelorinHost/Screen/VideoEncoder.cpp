#include "PelorinHost/Screen/VideoEncoder.h"

#include <utility>

namespace pelorin {
namespace {

constexpr double burstFactor = 1.5; // of the average, over any span of rateSpanSeconds
constexpr double rateSpanSeconds = 1;
constexpr int keyframeIntervalSeconds = 60;
constexpr int expectedNalLengthSize = 4;

const char* displayName(VideoCodec codec)
{
    return codec == VideoCodec::hevc ? "HEVC" : "H.264";
}

ProfileLevel profileFor(VideoCodec codec, bool isLowLatency)
{
    if (codec == VideoCodec::hevc) return ProfileLevel::hevcMainAutoLevel;
    return isLowLatency ? ProfileLevel::h264ConstrainedHighAutoLevel : ProfileLevel::h264HighAutoLevel;
}

std::uint64_t microseconds(SteadyTime time)
{
    const auto sinceEpoch = std::chrono::round<std::chrono::nanoseconds>(time.time_since_epoch()).count();
    return sinceEpoch <= 0 ? 0 : (static_cast<std::uint64_t>(sinceEpoch) + 500) / 1000;
}

void setOrLog(CompressionSession& session, const CompressionProperty& property, const Log& log)
{
    const CompressionStatus status = session.setProperty(property);
    if (status != compressionStatus::success)
        log.warning("encoder property {} rejected: {}", nameOf(property), status);
}

void setRate(CompressionSession& session, int bitsPerSecond, const Log& log)
{
    const int burstBytes = static_cast<int>(bitsPerSecond / 8.0 * burstFactor);
    setOrLog(session, compressionProperty::AverageBitRate{bitsPerSecond}, log);
    setOrLog(session, compressionProperty::DataRateLimits{burstBytes, rateSpanSeconds}, log);
}

} // namespace

// What the outputs of one session need: copies, since a platform may still hold an output when the encoder
// is gone.
struct VideoEncoder::Receiver {
    VideoCodec codec;
    std::function<void(VideoCodec, std::vector<Bytes>)> onFormat;
    std::function<void(EncodedFrame)> onFrame;
    Log log{"encoder"};

    void receive(CompressionStatus status, CompressedSample sample) const;
};

void VideoEncoder::Receiver::receive(CompressionStatus status, CompressedSample sample) const
{
    if (status != compressionStatus::success) return log.error("encoder output error: {}", status);
    if (!sample.isDataReady) return;
    const bool isKeyframe = !sample.isNotSync;
    if (isKeyframe && sample.nalLengthSize != expectedNalLengthSize)
        log.warning(
            "unexpected NAL length size {}; client assumes {}", sample.nalLengthSize, expectedNalLengthSize);
    if (isKeyframe && !sample.parameterSets.empty() && onFormat)
        onFormat(codec, std::move(sample.parameterSets));
    if (!onFrame) return;
    onFrame({.isKeyframe = isKeyframe,
        .ptsMicros = microseconds(sample.presentationTime),
        .data = std::move(sample.data),
        .captureTimes = sample.captureTimes,
        .encodedAt = sample.encodedAt});
}

VideoEncoder::VideoEncoder(
    Compression& platform, VideoCodec codecPreference, int startBitrate, int expectedFrameRate)
    : compression(platform),
      frameRate(expectedFrameRate),
      currentCodec(codecPreference),
      bitrate(startBitrate)
{
}

VideoEncoder::~VideoEncoder()
{
    tearDown();
}

void VideoEncoder::encode(const PixelBuffer& picture, SteadyTime presentationTime)
{
    const auto current = sessionFor(picture);
    if (!current) return;
    bool isForced = false;
    {
        const std::lock_guard guard(lock);
        isForced = std::exchange(forceKeyframe, false);
    }
    const CompressionStatus status = current->encode(picture, presentationTime, isForced,
        [watch = std::weak_ptr(receiver)](CompressionStatus outcome, CompressedSample sample) {
            if (const auto receiving = watch.lock()) receiving->receive(outcome, std::move(sample));
        });
    if (status == compressionStatus::success) return;
    log.error("encode failed: {}", status);
    // The keyframe is still owed: who waits for it asks only once.
    if (isForced) setForceKeyframe();
}

void VideoEncoder::setBitrate(int bitsPerSecond)
{
    const std::lock_guard guard(lock);
    bitrate = bitsPerSecond;
    if (session) setRate(*session, bitrate, log);
}

void VideoEncoder::setForceKeyframe()
{
    const std::lock_guard guard(lock);
    forceKeyframe = true;
}

std::shared_ptr<CompressionSession> VideoEncoder::sessionFor(const PixelBuffer& picture)
{
    {
        const std::lock_guard guard(lock);
        if (session && picture.widthPx == width && picture.heightPx == height) return session;
    }
    return createSession(picture.widthPx, picture.heightPx);
}

std::shared_ptr<CompressionSession> VideoEncoder::createSession(int widthPx, int heightPx)
{
    tearDown();
    auto [status, created] = createInChain(widthPx, heightPx);
    if (status != compressionStatus::success || !created) {
        log.error("could not create encoder {}x{}: {}", widthPx, heightPx, status);
        return nullptr;
    }
    int rate = 0;
    {
        const std::lock_guard guard(lock);
        rate = bitrate;
    }
    const std::shared_ptr<CompressionSession> made = std::move(created);
    configure(*made, rate);
    width = widthPx;
    height = heightPx;
    receiver = std::make_shared<Receiver>(currentCodec, onFormat, onFrame);
    install(made, rate);
    log.info("encoder {} {}x{} @ {} Mbps, low latency: {}", displayName(currentCodec), width, height,
        rate / 1'000'000, isLowLatency.load());
    return made;
}

Compression::Created VideoEncoder::createInChain(int widthPx, int heightPx)
{
    const auto create = [&](EncoderMode mode) {
        return compression.createSession({.codec = currentCodec,
            .widthPx = widthPx,
            .heightPx = heightPx,
            .mode = mode,
            .frameRate = frameRate});
    };
    auto created = create(EncoderMode::lowLatency);
    if (created.status != compressionStatus::success && currentCodec == VideoCodec::hevc) {
        log.warning("HEVC low-latency unavailable ({}); falling back to H.264", created.status);
        currentCodec = VideoCodec::h264;
        created = create(EncoderMode::lowLatency);
    }
    isLowLatency = created.status == compressionStatus::success;
    if (isLowLatency) return created;
    log.warning("low-latency rate control unavailable ({}); using regular real-time mode", created.status);
    return create(EncoderMode::hardwareAccelerated);
}

void VideoEncoder::configure(CompressionSession& made, int rate)
{
    using namespace compressionProperty;
    setOrLog(made, RealTime{true}, log);
    setOrLog(made, AllowFrameReordering{false}, log);
    setOrLog(made, Profile{profileFor(currentCodec, isLowLatency)}, log);
    setOrLog(made, ExpectedFrameRate{frameRate}, log);
    setOrLog(made, MaxKeyFrameInterval{frameRate * keyframeIntervalSeconds}, log);
    setOrLog(made, MaxKeyFrameIntervalDuration{keyframeIntervalSeconds}, log);
    setRate(made, rate, log);
    made.prepareToEncodeFrames();
}

void VideoEncoder::install(std::shared_ptr<CompressionSession> made, int configuredRate)
{
    const std::lock_guard guard(lock);
    session = std::move(made);
    forceKeyframe = true;
    // The rate may have moved since it was read; nobody but us told this session.
    if (bitrate != configuredRate) setRate(*session, bitrate, log);
}

void VideoEncoder::tearDown()
{
    std::shared_ptr<CompressionSession> ended;
    {
        const std::lock_guard guard(lock);
        ended = std::move(session);
    }
    if (ended) ended->completeFrames();
    receiver.reset();
}

} // namespace pelorin
