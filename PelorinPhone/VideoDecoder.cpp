#include "PelorinPhone/VideoDecoder.h"

#include <algorithm>
#include <fmt/format.h>
#include <thread>

extern "C" {
#include <libavcodec/avcodec.h>
}

namespace pelorin {

namespace {

// The largest picture a host may make us allocate: that of the largest phone-shaped display.
constexpr std::int64_t maxPixels = 8192LL * 8192;

// Slices of one picture may decode side by side without delaying it; more threads than this gain nothing.
constexpr int maxSliceThreads = 4;

constexpr std::size_t lengthSize = 4;
constexpr std::uint8_t startCode[lengthSize] = {0, 0, 0, 1};

struct FrameDeleter {
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};
struct PacketDeleter {
    void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};

std::unexpected<DecodeError> failure(std::string description)
{
    return std::unexpected(DecodeError{std::move(description)});
}

std::unexpected<DecodeError> failure(const char* action, int status)
{
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(status, text, sizeof text);
    return failure(fmt::format("{}: {}", action, text));
}

// A length and a start code are both four bytes wide, so the conversion happens in place.
bool replaceLengthsByStartCodes(Bytes& unit)
{
    std::size_t position = 0;
    while (position < unit.size()) {
        if (unit.size() - position < lengthSize) return false;
        const auto* at = unit.data() + position;
        const std::size_t length
            = std::size_t{at[0]} << 24 | std::size_t{at[1]} << 16 | std::size_t{at[2]} << 8 | at[3];
        if (unit.size() - position - lengthSize < length) return false;
        std::copy(
            std::begin(startCode), std::end(startCode), unit.begin() + static_cast<std::ptrdiff_t>(position));
        position += lengthSize + length;
    }
    return position > 0;
}

Bytes withStartCodes(const std::vector<Bytes>& parameterSets)
{
    Bytes joined;
    for (const Bytes& set : parameterSets) {
        joined.insert(joined.end(), std::begin(startCode), std::end(startCode));
        joined.insert(joined.end(), set.begin(), set.end());
    }
    return joined;
}

bool isDamaged(const AVFrame& frame)
{
    return frame.decode_error_flags != 0 || (frame.flags & AV_FRAME_FLAG_CORRUPT) != 0;
}

Result<DecodedPicture, DecodeError> pictureOf(std::shared_ptr<AVFrame> frame)
{
    if (frame->format != AV_PIX_FMT_YUV420P && frame->format != AV_PIX_FMT_YUVJ420P)
        return failure("the picture is not 8-bit 4:2:0");
    DecodedPicture picture;
    picture.widthPx = frame->width;
    picture.heightPx = frame->height;
    for (std::size_t plane = 0; plane < 3; ++plane) {
        picture.planes[plane] = frame->data[plane];
        picture.strides[plane] = frame->linesize[plane];
    }
    picture.isFullRange = frame->color_range == AVCOL_RANGE_JPEG || frame->format == AV_PIX_FMT_YUVJ420P;
    picture.pixels = std::move(frame);
    return picture;
}

} // namespace

struct VideoDecoder::Context {
    AVCodecContext* codec = nullptr;
    std::unique_ptr<AVPacket, PacketDeleter> packet{av_packet_alloc()};

    Context() = default;
    Context(const Context&) = delete;
    Context& operator=(const Context&) = delete;
    ~Context() { avcodec_free_context(&codec); }

    Result<void, DecodeError> open(const message::VideoFormat& format);
    Result<DecodedPicture, DecodeError> decode(std::unique_ptr<Bytes> unit);
};

Result<void, DecodeError> VideoDecoder::Context::open(const message::VideoFormat& format)
{
    const AVCodec* decoder
        = avcodec_find_decoder(format.codec == VideoCodec::hevc ? AV_CODEC_ID_HEVC : AV_CODEC_ID_H264);
    codec = decoder ? avcodec_alloc_context3(decoder) : nullptr;
    if (!codec || !packet) return failure("no decoder for this codec");

    const Bytes sets = withStartCodes(format.parameterSets);
    codec->extradata = static_cast<std::uint8_t*>(av_mallocz(sets.size() + AV_INPUT_BUFFER_PADDING_SIZE));
    if (!codec->extradata) return failure("out of memory");
    std::copy(sets.begin(), sets.end(), codec->extradata);
    codec->extradata_size = static_cast<int>(sets.size());

    // Frame threads would hold a picture back for each thread.
    codec->thread_type = FF_THREAD_SLICE;
    codec->thread_count
        = std::clamp(static_cast<int>(std::thread::hardware_concurrency()), 1, maxSliceThreads);
    codec->flags |= AV_CODEC_FLAG_LOW_DELAY;
    codec->err_recognition |= AV_EF_EXPLODE; // a damaged picture is asked for anew rather than guessed
    codec->max_pixels = maxPixels;
    codec->log_level_offset
        = AV_LOG_TRACE; // what it has to say is in the error; a bad stream must not flood the log
    if (const int status = avcodec_open2(codec, decoder, nullptr); status < 0)
        return failure("opening the decoder", status);
    return {};
}

VideoDecoder::VideoDecoder() = default;
VideoDecoder::~VideoDecoder() = default;

Result<void, DecodeError> VideoDecoder::setFormat(VideoCodec codec, const std::vector<Bytes>& parameterSets)
{
    if (context && format.codec == codec && format.parameterSets == parameterSets) return {};
    context.reset();
    format = {codec, parameterSets};
    auto opened = std::make_unique<Context>();
    if (auto result = opened->open(format); !result) return result;
    context = std::move(opened);
    return {};
}

Result<DecodedPicture, DecodeError> VideoDecoder::decode(Bytes accessUnit)
{
    if (!context) return failure("no format");
    if (!replaceLengthsByStartCodes(accessUnit)) return failure("the lengths of NAL units do not add up");
    auto picture = context->decode(std::make_unique<Bytes>(std::move(accessUnit)));
    if (!picture) avcodec_flush_buffers(context->codec); // forgets what the next keyframe must not refer to
    return picture;
}

Result<DecodedPicture, DecodeError> VideoDecoder::Context::decode(std::unique_ptr<Bytes> unit)
{
    const std::size_t size = unit->size();
    unit->resize(size + AV_INPUT_BUFFER_PADDING_SIZE); // the decoder reads ahead
    packet->buf = av_buffer_create(
        unit->data(), unit->size(), [](void* owner, std::uint8_t*) { delete static_cast<Bytes*>(owner); },
        unit.get(), 0);
    if (!packet->buf) return failure("out of memory");
    packet->data = unit.release()->data();
    packet->size = static_cast<int>(size);
    const int sent = avcodec_send_packet(codec, packet.get());
    av_packet_unref(packet.get());
    if (sent < 0) return failure("decoding", sent);

    std::shared_ptr<AVFrame> frame(av_frame_alloc(), FrameDeleter{});
    if (!frame) return failure("out of memory");
    if (const int status = avcodec_receive_frame(codec, frame.get()); status < 0)
        return failure("no picture came out", status);
    if (isDamaged(*frame)) return failure("the picture is damaged");
    return pictureOf(std::move(frame));
}

} // namespace pelorin
