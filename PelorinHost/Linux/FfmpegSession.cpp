#include "PelorinHost/Linux/FfmpegSession.h"

#include "PelorinHost/Linux/AccessUnit.h"

#include <algorithm>
#include <chrono>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/hwcontext.h>
#include <libavutil/opt.h>
}

namespace pelorin {
namespace {

// A new rate costs a keyframe: a cut must be followed, or the path clogs; rises come in small steps.
constexpr double cutWorthFollowing = 0.9;
constexpr double riseWorthFollowing = 1.3;
constexpr int surfacePoolSize = 4;
constexpr int maxSidePx = 8192;

bool isWorthAKeyframe(int asked, int opened)
{
    return asked <= opened * cutWorthFollowing || asked >= opened * riseWorthFollowing;
}

bool isSide(int px)
{
    return px > 0 && px <= maxSidePx && px % 2 == 0;
}

AVPixelFormat formatOf(FfmpegEncoder::Input input)
{
    switch (input) {
    case FfmpegEncoder::Input::planar:
        return AV_PIX_FMT_YUV420P;
    case FfmpegEncoder::Input::interleaved:
        return AV_PIX_FMT_NV12;
    case FfmpegEncoder::Input::vaapiSurface:
        return AV_PIX_FMT_VAAPI;
    }
    return AV_PIX_FMT_NONE;
}

} // namespace

void FfmpegSession::Deleter::operator()(AVBufferRef* reference) const
{
    av_buffer_unref(&reference);
}

void FfmpegSession::Deleter::operator()(AVCodecContext* context) const
{
    avcodec_free_context(&context);
}

void FfmpegSession::Deleter::operator()(AVFrame* frame) const
{
    av_frame_free(&frame);
}

void FfmpegSession::Deleter::operator()(AVPacket* packet) const
{
    av_packet_free(&packet);
}

std::unique_ptr<FfmpegSession> FfmpegSession::open(
    const FfmpegEncoder& encoder, const CompressionRequest& request)
{
    if (!isSide(request.widthPx) || !isSide(request.heightPx)) return nullptr;
    std::unique_ptr<FfmpegSession> session(new FfmpegSession(encoder, request));
    return session->openContext() ? std::move(session) : nullptr;
}

FfmpegSession::FfmpegSession(const FfmpegEncoder& newEncoder, const CompressionRequest& newRequest)
    : encoder(newEncoder),
      request(newRequest),
      shared(newRequest),
      settings(newRequest),
      packet(av_packet_alloc())
{
}

CompressionStatus FfmpegSession::setProperty(const CompressionProperty& property)
{
    return shared.set(property);
}

CompressionStatus FfmpegSession::prepareToEncodeFrames()
{
    return takeSettings(true);
}

CompressionStatus FfmpegSession::encode(
    const PixelBuffer& picture, SteadyTime presentationTime, bool forceKeyframe, Output output)
{
    if (picture.widthPx != request.widthPx || picture.heightPx != request.heightPx)
        return compressionStatus::badParameter;
    const std::chrono::duration<double> sinceKeyframe = presentationTime - lastKeyframe;
    const bool isKeyframeDue = forceKeyframe || sinceKeyframe.count() >= settings.keyframeIntervalSeconds;
    if (const auto status = takeSettings(isKeyframeDue); status != compressionStatus::success) return status;

    Owned<AVFrame> frame(av_frame_alloc());
    if (!frame) return compressionStatus::failed;
    fill(*frame, picture);
    if (encoder.input == FfmpegEncoder::Input::vaapiSurface) frame = upload(*frame);
    if (!frame) return compressionStatus::failed;
    frame->pts = pictureCount++;
    frame->pict_type = isKeyframeDue ? AV_PICTURE_TYPE_I : AV_PICTURE_TYPE_NONE;
    if (avcodec_send_frame(context.get(), frame.get()) != 0) return compressionStatus::failed;
    isFresh = false;
    pending.push_back({presentationTime, picture.times, std::move(output)});
    receivePackets();
    return compressionStatus::success;
}

void FfmpegSession::completeFrames()
{
    if (!context) return;
    if (!pending.empty() && avcodec_send_frame(context.get(), nullptr) == 0) receivePackets();
    pending.clear();
    context.reset(); // a drained encoder takes no more pictures
}

CompressionStatus FfmpegSession::takeSettings(bool isKeyframeComing)
{
    if (const auto changed = shared.takeChanged()) settings = *changed;
    const int asked = settings.bitsPerSecond;
    const bool isWorthIt = isFresh || isKeyframeComing || isWorthAKeyframe(asked, openedBitsPerSecond);
    if (context && (asked == openedBitsPerSecond || !isWorthIt)) return compressionStatus::success;
    if (context && encoder.takesRateLive) {
        setRate(*context);
        openedBitsPerSecond = asked;
        return compressionStatus::success;
    }
    completeFrames();
    return openContext() ? compressionStatus::success : compressionStatus::failed;
}

bool FfmpegSession::openContext()
{
    const AVCodec* codec = avcodec_find_encoder_by_name(encoder.name.c_str());
    if (!codec) return false;
    Owned<AVCodecContext> opening(avcodec_alloc_context3(codec));
    if (!opening) return false;
    opening->width = request.widthPx;
    opening->height = request.heightPx;
    opening->pix_fmt = formatOf(encoder.input);
    opening->time_base = {1, settings.frameRate};
    opening->framerate = {settings.frameRate, 1};
    opening->gop_size = settings.keyframeInterval;
    opening->max_b_frames = 0;
    opening->flags |= AV_CODEC_FLAG_GLOBAL_HEADER | AV_CODEC_FLAG_LOW_DELAY;
    opening->color_range = AVCOL_RANGE_MPEG;
    opening->color_primaries = AVCOL_PRI_BT709;
    opening->color_trc = AVCOL_TRC_BT709;
    opening->colorspace = AVCOL_SPC_BT709;
    setRate(*opening);
    if (encoder.input == FfmpegEncoder::Input::vaapiSurface && !attachSurfaces(*opening)) return false;

    AVDictionary* options = nullptr;
    for (const auto& [name, value] : encoder.options) av_dict_set(&options, name.c_str(), value.c_str(), 0);
    const int status = avcodec_open2(opening.get(), codec, &options);
    av_dict_free(&options);
    if (status != 0) return false;

    const ByteView headers(
        opening->extradata, static_cast<std::size_t>(std::max(0, opening->extradata_size)));
    parameterSets = packAccessUnit(encoder.codec, headers).parameterSets;
    openedBitsPerSecond = settings.bitsPerSecond;
    isFresh = true;
    context = std::move(opening);
    return true;
}

bool FfmpegSession::attachSurfaces(AVCodecContext& opening)
{
    if (!device) {
        AVBufferRef* made = nullptr;
        if (av_hwdevice_ctx_create(&made, AV_HWDEVICE_TYPE_VAAPI, nullptr, nullptr, 0) != 0) return false;
        device.reset(made);
    }
    Owned<AVBufferRef> surfaces(av_hwframe_ctx_alloc(device.get()));
    if (!surfaces) return false;
    auto& description = *reinterpret_cast<AVHWFramesContext*>(surfaces->data);
    description.format = AV_PIX_FMT_VAAPI;
    description.sw_format = AV_PIX_FMT_NV12;
    description.width = request.widthPx;
    description.height = request.heightPx;
    description.initial_pool_size = surfacePoolSize;
    if (av_hwframe_ctx_init(surfaces.get()) != 0) return false;
    opening.hw_frames_ctx = surfaces.release(); // freed with the context
    return true;
}

void FfmpegSession::setRate(AVCodecContext& target) const
{
    target.bit_rate = settings.bitsPerSecond;
    target.rc_max_rate = settings.bitsPerSecond;
    target.rc_buffer_size = settings.bucketBits();
}

// Wraps the picture's memory; libavcodec copies what it keeps.
void FfmpegSession::fill(AVFrame& frame, const PixelBuffer& picture)
{
    frame.width = picture.widthPx;
    frame.height = picture.heightPx;
    frame.data[0] = const_cast<std::uint8_t*>(picture.luma); // read only
    frame.linesize[0] = picture.lumaStride;
    if (encoder.input != FfmpegEncoder::Input::planar) {
        frame.format = AV_PIX_FMT_NV12;
        frame.data[1] = const_cast<std::uint8_t*>(picture.chroma);
        frame.linesize[1] = picture.chromaStride;
        return;
    }
    const int width = picture.widthPx / 2;
    const int height = picture.heightPx / 2;
    for (Bytes& plane : chroma) plane.resize(static_cast<std::size_t>(width) * height);
    for (int y = 0; y < height; ++y) {
        const std::uint8_t* pairs = picture.chroma + static_cast<std::ptrdiff_t>(y) * picture.chromaStride;
        std::uint8_t* cb = chroma[0].data() + static_cast<std::ptrdiff_t>(y) * width;
        std::uint8_t* cr = chroma[1].data() + static_cast<std::ptrdiff_t>(y) * width;
        for (int x = 0; x < width; ++x) {
            cb[x] = pairs[2 * x];
            cr[x] = pairs[2 * x + 1];
        }
    }
    frame.format = AV_PIX_FMT_YUV420P;
    for (int i = 0; i < 2; ++i) {
        frame.data[i + 1] = chroma[i].data();
        frame.linesize[i + 1] = width;
    }
}

FfmpegSession::Owned<AVFrame> FfmpegSession::upload(const AVFrame& frame) const
{
    Owned<AVFrame> surface(av_frame_alloc());
    if (!surface || av_hwframe_get_buffer(context->hw_frames_ctx, surface.get(), 0) != 0) return nullptr;
    if (av_hwframe_transfer_data(surface.get(), &frame, 0) != 0) return nullptr;
    return surface;
}

void FfmpegSession::receivePackets()
{
    while (!pending.empty() && avcodec_receive_packet(context.get(), packet.get()) == 0) {
        const Pending first = std::move(pending.front());
        pending.pop_front();
        CompressedSample sample = sampleOf(*packet, first);
        av_packet_unref(packet.get());
        first.output(compressionStatus::success, std::move(sample));
    }
}

CompressedSample FfmpegSession::sampleOf(const AVPacket& received, const Pending& of)
{
    AccessUnit unit = packAccessUnit(encoder.codec, {received.data, static_cast<std::size_t>(received.size)});
    const bool isKeyframe = (received.flags & AV_PKT_FLAG_KEY) != 0;
    // Some drivers write them only here, or other ones than they said at first.
    if (!unit.parameterSets.empty()) parameterSets = std::move(unit.parameterSets);
    if (isKeyframe) lastKeyframe = of.presentationTime;
    CompressedSample sample;
    sample.isDataReady = true;
    sample.isNotSync = !isKeyframe;
    if (isKeyframe) sample.parameterSets = parameterSets;
    sample.data = std::move(unit.data);
    sample.presentationTime = of.presentationTime;
    sample.captureTimes = of.times;
    sample.encodedAt = std::chrono::steady_clock::now();
    return sample;
}

} // namespace pelorin
