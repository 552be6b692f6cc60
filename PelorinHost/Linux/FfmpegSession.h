#pragma once

#include "PelorinHost/Linux/CompressionSettings.h"
#include "PelorinHost/Linux/FfmpegCompression.h"

#include <deque>

struct AVBufferRef;
struct AVCodecContext;
struct AVFrame;
struct AVPacket;

namespace pelorin {

// One encoder of libavcodec at work. All but setProperty belongs to the thread that encodes, which also gets
// the outputs.
class FfmpegSession final : public CompressionSession {
public:
    // Nothing when it doesn't open at that size on this machine.
    static std::unique_ptr<FfmpegSession> open(
        const FfmpegEncoder& encoder, const CompressionRequest& request);

    CompressionStatus setProperty(const CompressionProperty& property) override;
    CompressionStatus prepareToEncodeFrames() override;
    CompressionStatus encode(
        const PixelBuffer& picture, SteadyTime presentationTime, bool forceKeyframe, Output output) override;
    void completeFrames() override;

private:
    struct Deleter {
        void operator()(AVBufferRef* reference) const;
        void operator()(AVCodecContext* context) const;
        void operator()(AVFrame* frame) const;
        void operator()(AVPacket* packet) const;
    };
    template <class T>
    using Owned = std::unique_ptr<T, Deleter>;

    struct Pending {
        SteadyTime presentationTime;
        CaptureTimes times;
        Output output;
    };

    FfmpegSession(const FfmpegEncoder& newEncoder, const CompressionRequest& newRequest);
    bool openContext();
    bool attachSurfaces(AVCodecContext& opening);
    CompressionStatus takeSettings(bool isKeyframeComing);
    void setRate(AVCodecContext& target) const;
    void fill(AVFrame& frame, const PixelBuffer& picture);
    Owned<AVFrame> upload(const AVFrame& frame) const;
    void receivePackets();
    CompressedSample sampleOf(const AVPacket& packet, const Pending& of);

    const FfmpegEncoder encoder;
    const CompressionRequest request;
    SharedCompressionSettings shared;
    CompressionSettings settings;

    Owned<AVBufferRef> device;
    Owned<AVCodecContext> context; // none between completeFrames and the next picture
    Owned<AVPacket> packet;
    int openedBitsPerSecond = 0;
    bool isFresh = true; // opened, and nothing encoded yet
    std::vector<Bytes> parameterSets;
    Bytes chroma[2]; // Cb, Cr, for an encoder that takes no interleaved input
    std::deque<Pending> pending; // sent, not yet received
    std::int64_t pictureCount = 0;
    SteadyTime lastKeyframe;
};

} // namespace pelorin
