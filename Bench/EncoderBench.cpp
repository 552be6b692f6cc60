// What one picture of 1920x1080 costs in the encoder, and what the phone then sees, by kind of content and by
// preset and threads. EncoderBench [frames]; prints a table.

#include "PelorinHost/Linux/X264Compression.h"
#include "Tests/Lab/VideoDecoder.h"

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <fmt/format.h>
#include <numeric>

using namespace pelorin;
using namespace pelorin::lab;
using namespace std::chrono_literals;

namespace {

constexpr int widthPx = 1920;
constexpr int heightPx = 1080;
constexpr int frameRate = 60;
constexpr int bitsPerSecond = 12'000'000;

struct Content {
    const char* name;
    void (*draw)(SyntheticPicture&, int frame);
};

const Content contents[] = {
    {"scrolling text",
        [](SyntheticPicture& picture, int frame) {
            picture.scrollUp(16);
            picture.drawText({0, heightPx - 24, widthPx, 16}, frame);
        }},
    {"typing", [](SyntheticPicture& picture, int frame) { picture.drawText({640, 480, 96, 16}, frame); }},
    {"window in motion",
        [](SyntheticPicture& picture, int frame) { picture.drawWaves({480, 270, 960, 540}, frame); }},
    {"full motion", [](SyntheticPicture& picture, int frame) { picture.drawWaves(picture.whole(), frame); }},
    {"noise",
        [](SyntheticPicture& picture, int frame) {
            picture.drawNoise(picture.whole(), static_cast<unsigned>(frame));
        }},
};

double processorMs()
{
    timespec time{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_nsec) / 1e6;
}

double percentile(std::vector<double> values, double share)
{
    std::ranges::sort(values);
    return values[static_cast<std::size_t>(share * static_cast<double>(values.size() - 1))];
}

void measure(const Content& content, const X264Compression::Tuning& tuning, int frames)
{
    X264Compression compression(tuning);
    auto created = compression.createSession({VideoCodec::h264, widthPx, heightPx, {}, frameRate});
    auto& session = *created.session;
    session.setProperty(compressionProperty::AverageBitRate{bitsPerSecond});
    session.setProperty(compressionProperty::DataRateLimits{bitsPerSecond / 16 * 3, 1});
    session.prepareToEncodeFrames();

    SyntheticPicture picture(widthPx, heightPx);
    picture.drawText(picture.whole());
    VideoDecoder decoder(VideoCodec::h264);
    std::vector<double> wallMs;
    std::vector<double> psnr;
    double cpuMs = 0;
    std::size_t bytes = 0;
    constexpr int warmUp = 30; // the first pictures are a keyframe and its mending
    for (int frame = 0; frame < warmUp + frames; ++frame) {
        if (frame > 0) content.draw(picture, frame);
        const auto buffer = picture.next();
        CompressedSample sample;
        const double cpuBefore = processorMs();
        const auto before = std::chrono::steady_clock::now();
        session.encode(buffer, SteadyTime(1'000'000'000ns * frame / frameRate), false,
            [&](CompressionStatus, CompressedSample output) { sample = std::move(output); });
        const std::chrono::duration<double, std::milli> took = std::chrono::steady_clock::now() - before;
        const double cpu = processorMs() - cpuBefore;
        const auto decoded = decoder.decode(sample);
        if (frame < warmUp) continue;
        wallMs.push_back(took.count());
        cpuMs += cpu;
        bytes += sample.data.size();
        if (decoded && frame % 10 == 0) psnr.push_back(decoded->psnr(picture, picture.whole()));
    }
    fmt::print("{:18} {:10} {:7} {:8.2f} {:8.2f} {:8.2f} {:8.2f} {:8.1f}\n", content.name, tuning.preset,
        tuning.threads, percentile(wallMs, 0.5), percentile(wallMs, 0.95), cpuMs / frames,
        static_cast<double>(bytes) * 8 * frameRate / frames / 1e6,
        std::accumulate(psnr.begin(), psnr.end(), 0.0) / static_cast<double>(psnr.size()));
}

} // namespace

int main(int count, char** arguments)
{
    const int frames = count > 1 ? std::max(10, std::atoi(arguments[1])) : 200;
    fmt::print("{:18} {:10} {:>7} {:>8} {:>8} {:>8} {:>8} {:>8}\n", "content", "preset", "threads", "p50 ms",
        "p95 ms", "CPU ms", "Mbit/s", "PSNR dB");
    for (const auto& content : contents)
        for (const char* preset : {"ultrafast", "superfast", "veryfast"})
            for (const int threads : {1, 2}) measure(content, {preset, threads}, frames);
}
