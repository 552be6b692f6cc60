#include "PelorinHost/Linux/X264Compression.h"

#include "PelorinHost/Linux/CompressionSettings.h"
#include "PelorinNet/Log.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <thread>

#include <x264.h>

namespace pelorin {
namespace {

// Without a floor a still screen burns megabits on differences that no eye sees.
constexpr int quantizerFloor = 16;
constexpr double bucketShareOfOnePicture = 0.5;
constexpr double leastFrameShare = 0.5; // a picture that comes early is still worth half a frame
constexpr double timeStep = 0.1; // of a frame; less isn't worth telling x264
constexpr int macroblockPx = 16;
constexpr int minSidePx = 16;
constexpr int maxSidePx = 8192;
constexpr std::size_t nalHeaderAt = 4; // behind the length
constexpr int profileIdcHigh = 100;
constexpr std::uint8_t constrainedHighFlags = 0x0C; // progressive only, no B slices

class X264Session final : public CompressionSession {
public:
    X264Session(const CompressionRequest& asked, X264Compression::Tuning chosen);
    ~X264Session() override;

    CompressionStatus setProperty(const CompressionProperty& property) override;
    CompressionStatus prepareToEncodeFrames() override;
    CompressionStatus encode(
        const PixelBuffer& picture, SteadyTime presentationTime, bool forceKeyframe, Output output) override;
    void completeFrames() override {} // none is ever under way

private:
    CompressionStatus takeSettings();
    CompressionStatus open();
    void giveTime(SteadyTime presentationTime);
    void setRate(double seconds);
    void readParameterSets(bool isConstrainedHigh);
    std::uint8_t* constantMacroblocks(const PixelBuffer& picture);
    void markChanged(const PixelRect& rect);
    CompressedSample collect(const x264_nal_t* nals, int count, bool isKeyframe) const;

    const CompressionRequest request;
    const X264Compression::Tuning tuning;
    const int macroblocksWide;
    const int macroblocksHigh;
    SharedCompressionSettings shared;

    // The rest belongs to the thread that encodes.
    x264_param_t parameters{};
    x264_t* encoder = nullptr;
    std::vector<Bytes> parameterSets;
    std::vector<std::uint8_t> macroblockInfo;
    std::optional<std::uint64_t> encodedSequence; // of the picture that the decoder has last
    std::int64_t pictureCount = 0;
    CompressionSettings settings;
    double secondsGiven = 0; // to the coming picture, of the rate
    std::optional<SteadyTime> lastPicture;
    SteadyTime lastKeyframe;
};

X264Session::X264Session(const CompressionRequest& asked, X264Compression::Tuning chosen)
    : request(asked),
      tuning(std::move(chosen)),
      macroblocksWide((asked.widthPx + macroblockPx - 1) / macroblockPx),
      macroblocksHigh((asked.heightPx + macroblockPx - 1) / macroblockPx),
      shared(asked),
      macroblockInfo(static_cast<std::size_t>(macroblocksWide) * macroblocksHigh),
      settings(asked)
{
}

X264Session::~X264Session()
{
    if (encoder) x264_encoder_close(encoder);
}

CompressionStatus X264Session::setProperty(const CompressionProperty& property)
{
    return shared.set(property);
}

CompressionStatus X264Session::prepareToEncodeFrames()
{
    return takeSettings();
}

CompressionStatus X264Session::encode(
    const PixelBuffer& picture, SteadyTime presentationTime, bool forceKeyframe, Output output)
{
    if (picture.widthPx != request.widthPx || picture.heightPx != request.heightPx)
        return compressionStatus::badParameter;
    if (const auto status = takeSettings(); status != compressionStatus::success) return status;

    giveTime(presentationTime);
    const std::chrono::duration<double> sinceKeyframe = presentationTime - lastKeyframe;
    const bool isDue = sinceKeyframe.count() >= settings.keyframeIntervalSeconds;
    x264_picture_t input;
    x264_picture_init(&input);
    input.i_type = forceKeyframe || isDue ? X264_TYPE_IDR : X264_TYPE_AUTO;
    input.i_pts = pictureCount++;
    input.img.i_csp = X264_CSP_NV12;
    input.img.i_plane = 2;
    input.img.plane[0] = const_cast<std::uint8_t*>(picture.luma); // read only
    input.img.plane[1] = const_cast<std::uint8_t*>(picture.chroma);
    input.img.i_stride[0] = picture.lumaStride;
    input.img.i_stride[1] = picture.chromaStride;
    input.prop.mb_info = constantMacroblocks(picture);

    x264_nal_t* nals = nullptr;
    int count = 0;
    x264_picture_t coded;
    const int size = x264_encoder_encode(encoder, &nals, &count, &input, &coded);
    if (size <= 0) {
        encodedSequence.reset();
        return compressionStatus::failed;
    }
    encodedSequence = picture.sequence;
    if (coded.b_keyframe) lastKeyframe = presentationTime;

    CompressedSample sample = collect(nals, count, coded.b_keyframe != 0);
    sample.presentationTime = presentationTime;
    sample.captureTimes = picture.times;
    output(compressionStatus::success, std::move(sample));
    return compressionStatus::success;
}

CompressionStatus X264Session::takeSettings()
{
    const auto changed = shared.takeChanged();
    if (changed) settings = *changed;
    if (!encoder) return changed ? open() : compressionStatus::failed;
    if (changed) setRate(secondsGiven);
    return compressionStatus::success;
}

int threadsFor(const CompressionRequest& request)
{
    // A small picture is done before a second thread has woken. A large one is on its way sooner for the same
    // processor time, at the price of what a slice can't borrow from its neighbour: some 2 dB on scrolling
    // text.
    constexpr int pixelsPerThread = 1'000'000;
    const int processors = static_cast<int>(std::max(1U, std::thread::hardware_concurrency()));
    const int bySize = (request.widthPx * request.heightPx + pixelsPerThread - 1) / pixelsPerThread;
    return std::clamp(bySize, 1, std::max(1, processors));
}

CompressionStatus X264Session::open()
{
    if (x264_param_default_preset(&parameters, tuning.preset.c_str(), "zerolatency") < 0)
        return compressionStatus::badParameter;
    parameters.i_log_level = X264_LOG_NONE;
    parameters.i_width = request.widthPx;
    parameters.i_height = request.heightPx;
    parameters.i_csp = X264_CSP_NV12;
    parameters.i_threads = tuning.threads > 0 ? tuning.threads : threadsFor(request);
    parameters.b_sliced_threads = 1;
    parameters.i_fps_num = static_cast<std::uint32_t>(settings.frameRate);
    parameters.i_fps_den = 1;
    parameters.b_vfr_input = 0; // pictures come when the screen changes; the budget is per picture
    parameters.i_bframe = 0;
    parameters.i_keyint_max = settings.keyframeInterval;
    parameters.i_scenecut_threshold = 0; // a keyframe costs more than it saves, and nobody waits for one

    parameters.b_annexb = 0;
    parameters.b_repeat_headers = 0;
    parameters.b_aud = 0;
    parameters.vui.b_fullrange = 0;
    parameters.vui.i_colorprim = 1; // BT.709
    parameters.vui.i_transfer = 1;
    parameters.vui.i_colmatrix = 1;

    // CABAC would give text a decibel and a half, for a tenth more of the processor's time and half a
    // millisecond. The deblocking filter takes half a decibel from text, and without it a macroblock's pixels
    // are its own.
    parameters.b_cabac = 0;
    parameters.b_deblocking_filter = 0;
    parameters.analyse.b_transform_8x8 = 1; // what makes it High
    parameters.analyse.b_mb_info = 1;
    // A fixed quality under the bucket's limit. Aiming at an average instead, x264 makes up for a large
    // picture with dozens of poor ones after it.
    parameters.rc.i_rc_method = X264_RC_CRF;
    parameters.rc.f_rf_constant = quantizerFloor;
    parameters.rc.i_qp_min = quantizerFloor;
    setRate(1.0 / settings.frameRate);
    if (x264_param_apply_profile(&parameters, "high") < 0) return compressionStatus::badParameter;

    encoder = x264_encoder_open(&parameters);
    if (!encoder) return compressionStatus::failed;
    readParameterSets(settings.profile == ProfileLevel::h264ConstrainedHighAutoLevel);
    return compressionStatus::success;
}

// Pictures come when the screen changes, yet x264 counts on a steady rate: each would get a frame's share,
// however long the path was idle. So each gets the bits of the time that really passed since the last.
void X264Session::giveTime(SteadyTime presentationTime)
{
    const double frame = 1.0 / settings.frameRate;
    // More at a time would make x264 spend the whole bucket on one picture.
    const double most
        = std::max(frame, bucketShareOfOnePicture * settings.bucketBits() / settings.bitsPerSecond);
    double seconds = most;
    if (lastPicture) seconds = std::chrono::duration<double>(presentationTime - *lastPicture).count();
    lastPicture = presentationTime;
    seconds = std::clamp(seconds, leastFrameShare * frame, most);
    if (std::abs(seconds - secondsGiven) > timeStep * frame) setRate(seconds);
}

void X264Session::setRate(double seconds)
{
    secondsGiven = seconds;
    const double bitsPerFrame = settings.bitsPerSecond * seconds;
    parameters.rc.i_vbv_max_bitrate = std::max(1, static_cast<int>(bitsPerFrame * settings.frameRate / 1000));
    parameters.rc.i_vbv_buffer_size = std::max(1, settings.bucketBits() / 1000);
    if (encoder) x264_encoder_reconfig(encoder, &parameters);
}

void X264Session::readParameterSets(bool isConstrainedHigh)
{
    x264_nal_t* nals = nullptr;
    int count = 0;
    if (x264_encoder_headers(encoder, &nals, &count) < 0) return;
    for (const x264_nal_t& nal : std::span(nals, static_cast<std::size_t>(count))) {
        if (nal.i_type != NAL_SPS && nal.i_type != NAL_PPS) continue; // an SEI advertises the encoder
        Bytes set(nal.p_payload + nalHeaderAt, nal.p_payload + nal.i_payload);
        // x264 has no name for Constrained High, yet writes nothing that it forbids.
        if (nal.i_type == NAL_SPS && isConstrainedHigh && set[1] == profileIdcHigh)
            set[2] |= constrainedHighFlags;
        parameterSets.push_back(std::move(set));
    }
}

// One byte a macroblock; nothing when all may have changed.
std::uint8_t* X264Session::constantMacroblocks(const PixelBuffer& picture)
{
    if (!encodedSequence) return nullptr;
    const bool isRepeat = picture.sequence == *encodedSequence;
    const bool isNext = picture.sequence == *encodedSequence + 1;
    // A picture between, which the decoder never saw, took its damage with it.
    if (!isRepeat && !isNext) return nullptr;
    std::ranges::fill(macroblockInfo, std::uint8_t{X264_MBINFO_CONSTANT});
    if (isNext) std::ranges::for_each(picture.damage, [this](const PixelRect& rect) { markChanged(rect); });
    return macroblockInfo.data();
}

void X264Session::markChanged(const PixelRect& rect)
{
    const int left = std::clamp(rect.x / macroblockPx, 0, macroblocksWide);
    const int top = std::clamp(rect.y / macroblockPx, 0, macroblocksHigh);
    const int right = std::clamp((rect.x + rect.width - 1) / macroblockPx + 1, left, macroblocksWide);
    const int bottom = std::clamp((rect.y + rect.height - 1) / macroblockPx + 1, top, macroblocksHigh);
    for (int row = top; row < bottom; ++row)
        std::fill_n(macroblockInfo.begin() + row * macroblocksWide + left, right - left, std::uint8_t{0});
}

CompressedSample X264Session::collect(const x264_nal_t* nals, int count, bool isKeyframe) const
{
    CompressedSample sample;
    sample.isDataReady = true;
    sample.isNotSync = !isKeyframe;
    if (isKeyframe) sample.parameterSets = parameterSets;
    std::size_t size = 0;
    for (const x264_nal_t& nal : std::span(nals, static_cast<std::size_t>(count)))
        size += static_cast<std::size_t>(nal.i_payload);
    sample.data.reserve(size);
    for (const x264_nal_t& nal : std::span(nals, static_cast<std::size_t>(count))) {
        if (nal.i_type != NAL_SLICE && nal.i_type != NAL_SLICE_IDR) continue;
        sample.data.insert(sample.data.end(), nal.p_payload, nal.p_payload + nal.i_payload);
    }
    sample.encodedAt = std::chrono::steady_clock::now();
    return sample;
}

bool isSide(int px)
{
    return px >= minSidePx && px <= maxSidePx && px % 2 == 0;
}

} // namespace

Compression::Created X264Compression::createSession(const CompressionRequest& request)
{
    if (request.codec != VideoCodec::h264) return {compressionStatus::notAvailable, nullptr};
    if (!isSide(request.widthPx) || !isSide(request.heightPx))
        return {compressionStatus::badParameter, nullptr};
    return {compressionStatus::success, std::make_unique<X264Session>(request, tuning)};
}

} // namespace pelorin
