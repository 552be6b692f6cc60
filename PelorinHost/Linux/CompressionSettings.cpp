#include "PelorinHost/Linux/CompressionSettings.h"

#include <algorithm>
#include <utility>

namespace pelorin {
namespace {

// A picture that takes more than this of the path's time is felt as a freeze; less would starve a picture
// that changes as a whole.
constexpr double maxBucketSeconds = 0.2;
constexpr double minBucketSeconds = 0.05; // a few frames, or rate control can't work

bool isCodecsProfile(VideoCodec codec, ProfileLevel profile)
{
    return (codec == VideoCodec::hevc) == (profile == ProfileLevel::hevcMainAutoLevel);
}

// A property's value into its place, when it makes sense.
struct Setter {
    CompressionSettings& settings;

    static CompressionStatus support(bool isSupported)
    {
        return isSupported ? compressionStatus::success : compressionStatus::propertyNotSupported;
    }
    template <class Number>
    static CompressionStatus store(Number& place, Number value)
    {
        if (!(value > 0)) return compressionStatus::badParameter;
        place = value;
        return compressionStatus::success;
    }

    CompressionStatus operator()(compressionProperty::RealTime p) const { return support(p.value); }
    CompressionStatus operator()(compressionProperty::AllowFrameReordering p) const
    {
        return support(!p.value);
    }
    CompressionStatus operator()(compressionProperty::Profile p) const
    {
        if (!isCodecsProfile(settings.request.codec, p.value)) return support(false);
        settings.profile = p.value;
        return compressionStatus::success;
    }
    CompressionStatus operator()(compressionProperty::ExpectedFrameRate p) const
    {
        return store(settings.frameRate, p.value);
    }
    CompressionStatus operator()(compressionProperty::MaxKeyFrameInterval p) const
    {
        return store(settings.keyframeInterval, p.frames);
    }
    CompressionStatus operator()(compressionProperty::MaxKeyFrameIntervalDuration p) const
    {
        return store(settings.keyframeIntervalSeconds, p.seconds);
    }
    CompressionStatus operator()(compressionProperty::AverageBitRate p) const
    {
        return store(settings.bitsPerSecond, p.bitsPerSecond);
    }
    CompressionStatus operator()(compressionProperty::DataRateLimits p) const
    {
        if (!(p.bytes > 0)) return compressionStatus::badParameter;
        const CompressionStatus status = store(settings.limitSeconds, p.seconds);
        if (status == compressionStatus::success) settings.limitBytes = p.bytes;
        return status;
    }
};

bool isSetLive(const CompressionProperty& property)
{
    using namespace compressionProperty;
    return std::holds_alternative<AverageBitRate>(property)
        || std::holds_alternative<DataRateLimits>(property);
}

} // namespace

CompressionSettings::CompressionSettings(const CompressionRequest& asked)
    : request(asked),
      frameRate(std::max(asked.frameRate, 1))
{
    profile
        = asked.codec == VideoCodec::hevc ? ProfileLevel::hevcMainAutoLevel : ProfileLevel::h264HighAutoLevel;
}

CompressionStatus CompressionSettings::set(const CompressionProperty& property)
{
    return std::visit(Setter{*this}, property);
}

int CompressionSettings::bucketBits() const
{
    const double rate = bitsPerSecond;
    const double underLimit
        = limitBytes > 0 ? limitBytes * 8.0 - rate * limitSeconds : rate * maxBucketSeconds;
    return static_cast<int>(std::clamp(underLimit, rate * minBucketSeconds, rate * maxBucketSeconds));
}

CompressionStatus SharedCompressionSettings::set(const CompressionProperty& property)
{
    const std::lock_guard guard(lock);
    if (isTaken && !isSetLive(property)) return compressionStatus::propertyNotSupported;
    isChanged = true;
    return settings.set(property);
}

std::optional<CompressionSettings> SharedCompressionSettings::takeChanged()
{
    const std::lock_guard guard(lock);
    isTaken = true;
    if (!std::exchange(isChanged, false)) return std::nullopt;
    return settings;
}

} // namespace pelorin
