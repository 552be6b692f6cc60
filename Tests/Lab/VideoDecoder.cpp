#include "Tests/Lab/VideoDecoder.h"

#include <cmath>

extern "C" {
#include <libavcodec/avcodec.h>
}

namespace pelorin::lab {
namespace {

constexpr std::uint8_t startCode[] = {0, 0, 0, 1};

void append(Bytes& stream, ByteView nalUnit)
{
    stream.insert(stream.end(), std::begin(startCode), std::end(startCode));
    stream.insert(stream.end(), nalUnit.begin(), nalUnit.end());
}

Bytes plane(const AVFrame& frame, int which, int width, int height)
{
    Bytes copied;
    for (int y = 0; y < height; ++y) {
        const std::uint8_t* row = frame.data[which] + static_cast<std::ptrdiff_t>(y) * frame.linesize[which];
        copied.insert(copied.end(), row, row + width);
    }
    return copied;
}

} // namespace

struct VideoDecoder::Context {
    AVCodecContext* decoder = nullptr;
    AVPacket* packet = av_packet_alloc();
    AVFrame* frame = av_frame_alloc();

    ~Context()
    {
        av_frame_free(&frame);
        av_packet_free(&packet);
        avcodec_free_context(&decoder);
    }
};

VideoDecoder::VideoDecoder(VideoCodec codec) : context(std::make_unique<Context>())
{
    const AVCodecID id = codec == VideoCodec::hevc ? AV_CODEC_ID_HEVC : AV_CODEC_ID_H264;
    const AVCodec* found = avcodec_find_decoder(id);
    context->decoder = avcodec_alloc_context3(found);
    context->decoder->flags |= AV_CODEC_FLAG_LOW_DELAY;
    context->decoder->thread_count = 1;
    context->decoder->err_recognition = AV_EF_EXPLODE;
    require(avcodec_open2(context->decoder, found, nullptr) == 0, "the test's decoder opens");
}

VideoDecoder::~VideoDecoder() = default;

void VideoDecoder::setParameterSets(std::vector<Bytes> sets)
{
    parameterSets = std::move(sets);
}

std::optional<DecodedPicture> VideoDecoder::decode(const CompressedSample& sample)
{
    if (!sample.isNotSync) setParameterSets(sample.parameterSets);
    return decode(sample.data);
}

std::optional<DecodedPicture> VideoDecoder::decode(ByteView accessUnit)
{
    const auto units = nalUnits(accessUnit);
    if (!units) return std::nullopt;
    Bytes stream;
    for (const Bytes& set : std::exchange(parameterSets, {})) append(stream, set);
    for (const ByteView unit : *units) append(stream, unit);

    const int size = static_cast<int>(stream.size());
    if (av_new_packet(context->packet, size) != 0) return std::nullopt;
    std::copy(stream.begin(), stream.end(), context->packet->data);
    const int sent = avcodec_send_packet(context->decoder, context->packet);
    av_packet_unref(context->packet);
    AVFrame* frame = context->frame;
    if (sent != 0 || avcodec_receive_frame(context->decoder, frame) != 0) return std::nullopt;

    DecodedPicture picture{frame->width, frame->height, plane(*frame, 0, frame->width, frame->height), {}};
    for (int i = 0; i < 2; ++i) picture.chroma[i] = plane(*frame, i + 1, frame->width / 2, frame->height / 2);
    av_frame_unref(frame);
    return picture;
}

double DecodedPicture::psnr(const SyntheticPicture& source, const PixelRect& rect) const
{
    double squares = 0;
    const auto add = [&](int difference) { squares += static_cast<double>(difference) * difference; };
    for (int y = rect.y; y < rect.y + rect.height; ++y)
        for (int x = rect.x; x < rect.x + rect.width; ++x)
            add(luma[static_cast<std::size_t>(y) * widthPx + x] - source.lumaAt(x, y));
    for (int i = 0; i < 2; ++i)
        for (int y = rect.y / 2; y < (rect.y + rect.height) / 2; ++y)
            for (int x = rect.x / 2; x < (rect.x + rect.width) / 2; ++x)
                add(chroma[i][static_cast<std::size_t>(y) * (widthPx / 2) + x] - source.chromaAt(x, y, i));
    const double samples = rect.width * rect.height * 1.5;
    return squares == 0 ? 100 : 10 * std::log10(255.0 * 255.0 * samples / squares);
}

std::optional<std::vector<ByteView>> nalUnits(ByteView accessUnit)
{
    std::vector<ByteView> units;
    while (!accessUnit.empty()) {
        if (accessUnit.size() < 4) return std::nullopt;
        const std::size_t length = static_cast<std::size_t>(accessUnit[0]) << 24 | accessUnit[1] << 16
            | accessUnit[2] << 8 | accessUnit[3];
        if (length == 0 || length > accessUnit.size() - 4) return std::nullopt;
        units.push_back(accessUnit.subspan(4, length));
        accessUnit = accessUnit.subspan(4 + length);
    }
    return units;
}

bool isSlice(VideoCodec codec, ByteView nalUnit)
{
    if (codec == VideoCodec::hevc) return (nalUnit[0] >> 1 & 0x3F) < 32;
    const int type = nalUnit[0] & 0x1F;
    return type >= 1 && type <= 5;
}

bool hasStartCode(ByteView nalUnit)
{
    constexpr std::uint8_t shortCode[] = {0, 0, 1};
    return !std::ranges::search(nalUnit, shortCode).empty();
}

} // namespace pelorin::lab
