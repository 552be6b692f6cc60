#include "Tests/Peers/PictureEncoder.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/opt.h>
}

namespace pelorin::lab {

namespace {

constexpr int squareSide = 32;
constexpr int squareMargin = 16;

// Cuts an Annex B byte stream into NAL units without start code.
std::vector<Bytes> unitsOf(const std::uint8_t* data, std::size_t size)
{
    std::vector<Bytes> units;
    std::size_t begin = 0;
    const auto isStartCode
        = [&](std::size_t at) { return data[at] == 0 && data[at + 1] == 0 && data[at + 2] == 1; };
    for (std::size_t at = 0; at + 3 <= size;) {
        if (!isStartCode(at)) {
            ++at;
            continue;
        }
        if (begin > 0) units.emplace_back(data + begin, data + at);
        begin = at += 3;
    }
    if (begin > 0) units.emplace_back(data + begin, data + size);
    for (Bytes& unit : units)
        while (!unit.empty() && unit.back() == 0)
            unit.pop_back(); // the zero that makes a start code four bytes
    return units;
}

bool isParameterSet(VideoCodec codec, const Bytes& unit)
{
    if (codec == VideoCodec::h264) return (unit[0] & 0x1F) == 7 || (unit[0] & 0x1F) == 8;
    return (unit[0] >> 1 & 0x3F) >= 32 && (unit[0] >> 1 & 0x3F) <= 34;
}

} // namespace

struct PictureEncoder::State {
    VideoCodec codec;
    AVCodecContext* context = nullptr;
    AVFrame* frame = av_frame_alloc();
    AVPacket* packet = av_packet_alloc();

    ~State()
    {
        avcodec_free_context(&context);
        av_frame_free(&frame);
        av_packet_free(&packet);
    }
};

PictureEncoder::PictureEncoder(VideoCodec codec, int widthPx, int heightPx) : state(std::make_unique<State>())
{
    state->codec = codec;
    const AVCodec* encoder = avcodec_find_encoder_by_name(codec == VideoCodec::h264 ? "libx264" : "libx265");
    if (!encoder) throw std::runtime_error("no encoder");
    AVCodecContext& context = *(state->context = avcodec_alloc_context3(encoder));
    context.width = widthPx;
    context.height = heightPx;
    context.pix_fmt = AV_PIX_FMT_YUV420P;
    context.time_base = {1, 60};
    context.max_b_frames = 0;
    context.gop_size = 10'000;
    context.thread_count = 1;
    context.log_level_offset = AV_LOG_TRACE; // quiet
    context.flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    av_opt_set(context.priv_data, "preset", "ultrafast", 0);
    av_opt_set(context.priv_data, "tune", "zerolatency", 0);
    av_opt_set(context.priv_data, "forced-idr", "1", 0);
    av_opt_set(context.priv_data, "x265-params", "log-level=none:pools=none", 0);
    if (avcodec_open2(&context, encoder, nullptr) < 0) throw std::runtime_error("the encoder did not open");

    state->frame->format = context.pix_fmt;
    state->frame->width = widthPx;
    state->frame->height = heightPx;
    state->frame->pts = 0;
}

PictureEncoder::~PictureEncoder() = default;

message::VideoFormat PictureEncoder::format() const
{
    message::VideoFormat format{state->codec, {}};
    for (Bytes& unit :
        unitsOf(state->context->extradata, static_cast<std::size_t>(state->context->extradata_size)))
        if (isParameterSet(state->codec, unit)) format.parameterSets.push_back(std::move(unit));
    return format;
}

message::VideoFrame PictureEncoder::encode(std::uint8_t luma, bool asKeyframe)
{
    AVFrame& frame = *state->frame;
    av_frame_unref(state->frame);
    frame.format = state->context->pix_fmt;
    frame.width = state->context->width;
    frame.height = state->context->height;
    if (av_frame_get_buffer(&frame, 0) < 0) throw std::runtime_error("out of memory");
    frame.pts = state->context->frame_number;
    frame.pict_type = asKeyframe ? AV_PICTURE_TYPE_I : AV_PICTURE_TYPE_NONE;
    for (int plane = 0; plane < 3; ++plane) {
        const auto rows = static_cast<std::size_t>(plane == 0 ? frame.height : (frame.height + 1) / 2);
        std::memset(frame.data[plane], plane == 0 ? luma : 128,
            rows * static_cast<std::size_t>(frame.linesize[plane]));
    }
    const int left = squareMargin + static_cast<int>(frame.pts) % squareMargin;
    const int right = std::min(left + squareSide, frame.width);
    for (int y = squareMargin; y < std::min(squareMargin + squareSide, frame.height); ++y)
        for (int x = left; x < right; ++x)
            frame.data[0][y * frame.linesize[0] + x] = static_cast<std::uint8_t>(luma + 10);

    if (avcodec_send_frame(state->context, &frame) < 0
        || avcodec_receive_packet(state->context, state->packet) < 0)
        throw std::runtime_error("the encoder held a picture back");
    message::VideoFrame result;
    result.isKeyframe = (state->packet->flags & AV_PKT_FLAG_KEY) != 0;
    for (const Bytes& unit : unitsOf(state->packet->data, static_cast<std::size_t>(state->packet->size))) {
        if (isParameterSet(state->codec, unit)) continue;
        const auto size = static_cast<std::uint32_t>(unit.size());
        for (int shift = 24; shift >= 0; shift -= 8)
            result.data.push_back(static_cast<std::uint8_t>(size >> shift));
        result.data.insert(result.data.end(), unit.begin(), unit.end());
    }
    av_packet_unref(state->packet);
    return result;
}

} // namespace pelorin::lab
