#include "PelorinHost/Linux/FfmpegCompression.h"

#include "PelorinHost/Linux/FfmpegSession.h"
#include "PelorinNet/Log.h"

#include <algorithm>
#include <chrono>
#include <optional>
#include <thread>

extern "C" {
#include <libavutil/log.h>
}

namespace pelorin {
namespace {

constexpr int trialPictures = 7; // after the first, which is a keyframe and warms up
constexpr double lowLatencyShare = 0.5; // of a frame's time; the rest is for capture, sending and chance
constexpr double realTimeShare = 0.9;

// A picture in which nothing repeats and everything moves: harder than any desktop.
class TrialPictures {
public:
    TrialPictures(int width, int height)
        : widthPx(width),
          heightPx(height),
          pixels(static_cast<std::size_t>(width) * height * 3 / 2)
    {
    }

    PixelBuffer next()
    {
        ++count;
        for (std::size_t i = 0; i < pixels.size(); ++i) {
            const auto x = static_cast<unsigned>(i % static_cast<std::size_t>(widthPx));
            const auto y = static_cast<unsigned>(i / static_cast<std::size_t>(widthPx));
            pixels[i] = static_cast<std::uint8_t>(16 + ((x * 3 + count * 5) ^ (y * 2 + count * 3)) % 220);
        }
        PixelBuffer picture;
        picture.widthPx = widthPx;
        picture.heightPx = heightPx;
        picture.luma = pixels.data();
        picture.chroma = pixels.data() + static_cast<std::size_t>(widthPx) * heightPx;
        picture.lumaStride = picture.chromaStride = widthPx;
        picture.sequence = count;
        return picture;
    }

private:
    int widthPx;
    int heightPx;
    unsigned count = 0;
    Bytes pixels;
};

// The median time of a picture, or nothing when one did not come out at once.
std::optional<double> trialNanoseconds(CompressionSession& session, int widthPx, int heightPx)
{
    TrialPictures pictures(widthPx, heightPx);
    std::vector<double> times;
    for (int i = 0; i <= trialPictures; ++i) {
        const auto picture = pictures.next();
        const auto before = std::chrono::steady_clock::now();
        bool isOut = false;
        session.encode(picture, before, i == 0, [&isOut, i](CompressionStatus status, const auto& sample) {
            isOut = status == compressionStatus::success && !sample.data.empty()
                && (i > 0 || (!sample.isNotSync && !sample.parameterSets.empty()));
        });
        const std::chrono::duration<double, std::nano> took = std::chrono::steady_clock::now() - before;
        if (!isOut) return std::nullopt;
        if (i > 0) times.push_back(took.count());
    }
    std::ranges::nth_element(times, times.begin() + trialPictures / 2);
    return times[trialPictures / 2];
}

} // namespace

std::vector<FfmpegEncoder> hardwareEncoders()
{
    using enum FfmpegEncoder::Input;
    const std::vector<std::pair<std::string, std::string>> nvenc = {{"preset", "p2"}, {"tune", "ull"},
        {"rc", "cbr"}, {"zerolatency", "1"}, {"delay", "0"}, {"forced-idr", "1"}};
    const std::vector<std::pair<std::string, std::string>> vaapi
        = {{"rc_mode", "CBR"}, {"async_depth", "1"}, {"sei", "0"}};
    const auto hardware = [](VideoCodec codec, const char* name, FfmpegEncoder::Input input, auto options) {
        options.emplace_back("profile", codec == VideoCodec::hevc ? "main" : "high");
        return FfmpegEncoder{codec, name, input, input == interleaved, options, 1920, 1080};
    };
    return {hardware(VideoCodec::hevc, "hevc_nvenc", interleaved, nvenc),
        hardware(VideoCodec::hevc, "hevc_vaapi", vaapiSurface, vaapi),
        hardware(VideoCodec::h264, "h264_nvenc", interleaved, nvenc),
        hardware(VideoCodec::h264, "h264_vaapi", vaapiSurface, vaapi)};
}

FfmpegEncoder x265Encoder()
{
    // Half the processors: the application being shown wants the rest. More than one frame thread would hold
    // pictures back, and with an open GOP a forced keyframe would be no IDR.
    const auto workers = std::to_string(std::max(1U, std::thread::hardware_concurrency() / 2));
    return {VideoCodec::hevc, "libx265", FfmpegEncoder::Input::planar, false,
        {{"preset", "ultrafast"}, {"tune", "zerolatency"}, {"profile", "main"}, {"forced-idr", "1"},
            {"x265-params",
                "log-level=none:frame-threads=1:open-gop=0:scenecut=0:qpmin=16:info=0:pools=" + workers}},
        640, 360};
}

FfmpegCompression::FfmpegCompression(std::vector<FfmpegEncoder> candidatesInOrder)
    : candidates(std::move(candidatesInOrder))
{
    // What a missing driver prints is said by us, once.
    av_log_set_level(AV_LOG_QUIET);
}

void FfmpegCompression::probe()
{
    const Log log{"encoder"};
    for (const FfmpegEncoder& encoder : candidates) {
        const auto session
            = FfmpegSession::open(encoder, {encoder.codec, encoder.trialWidthPx, encoder.trialHeightPx});
        const auto time = session ? trialNanoseconds(*session, encoder.trialWidthPx, encoder.trialHeightPx)
                                  : std::nullopt;
        if (!time) {
            log.debug("{} is not to be had here", encoder.name);
            continue;
        }
        log.info("{} takes {:.1f} ms for {}x{}", encoder.name, *time / 1e6, encoder.trialWidthPx,
            encoder.trialHeightPx);
        const std::lock_guard guard(lock);
        proven.push_back({encoder, *time / encoder.trialWidthPx / encoder.trialHeightPx});
    }
}

Compression::Created FfmpegCompression::createSession(const CompressionRequest& request)
{
    std::vector<Proven> known;
    {
        const std::lock_guard guard(lock);
        known = proven;
    }
    const double frameNanoseconds = 1e9 / std::max(1, request.frameRate);
    const double share = request.mode == EncoderMode::lowLatency ? lowLatencyShare : realTimeShare;
    CompressionStatus status = compressionStatus::notAvailable;
    for (const auto& [encoder, nanosecondsPerPixel] : known) {
        if (encoder.codec != request.codec) continue;
        if (nanosecondsPerPixel * request.widthPx * request.heightPx > share * frameNanoseconds) {
            status = compressionStatus::tooSlow;
            continue;
        }
        if (auto session = FfmpegSession::open(encoder, request))
            return {compressionStatus::success, std::move(session)};
    }
    return {status, nullptr};
}

} // namespace pelorin
