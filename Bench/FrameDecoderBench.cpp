// How fast does a byte stream become messages? The phone's side sees access units of about 100 KB, the host's
// side a flood of small input; both arrive in chunks of a socket read.

#include "PelorinCore/Wire/FrameCodec.h"

#include <benchmark/benchmark.h>

#include <algorithm>

namespace pelorin {
namespace {

constexpr std::size_t chunkSize = 64 * 1024;

struct Stream {
    Bytes bytes;
    std::int64_t messages = 0;

    void add(const Message& message, int times)
    {
        const Bytes frame = encodeFrame(message);
        for (int i = 0; i < times; ++i) bytes.insert(bytes.end(), frame.begin(), frame.end());
        messages += times;
    }
};

std::size_t decodeInChunks(FrameDecoder& decoder, ByteView stream)
{
    std::size_t messages = 0;
    while (!stream.empty()) {
        const std::size_t size = std::min(chunkSize, stream.size());
        const auto decoded = decoder.feed(stream.first(size));
        messages += decoded.value().size();
        stream = stream.subspan(size);
    }
    return messages;
}

void measure(benchmark::State& state, const Stream& stream)
{
    FrameDecoder decoder;
    std::int64_t decoded = 0;
    for (auto _ : state) decoded += static_cast<std::int64_t>(decodeInChunks(decoder, stream.bytes));
    if (decoded != state.iterations() * stream.messages) state.SkipWithError("messages went missing");
    state.SetItemsProcessed(decoded);
    state.SetBytesProcessed(state.iterations() * std::ssize(stream.bytes));
}

void videoFrames(benchmark::State& state)
{
    Stream stream;
    const auto size = static_cast<std::size_t>(state.range(0));
    stream.add(message::VideoFrame{false, 1, Bytes(size, 0x5A)}, static_cast<int>(16'000'000 / size));
    measure(state, stream);
}
BENCHMARK(videoFrames)->Arg(10'000)->Arg(100'000)->Arg(2'000'000);

void mouseMoves(benchmark::State& state)
{
    Stream stream;
    stream.add(message::MouseMove{1.5F, -0.25F}, 100'000);
    measure(state, stream);
}
BENCHMARK(mouseMoves);

// A phone in use: moves between keys, scrolls, pings and reports.
void mixedInput(benchmark::State& state)
{
    Stream stream;
    for (int i = 0; i < 1'000; ++i) {
        stream.add(message::MouseMove{1.5F, -0.25F}, 60);
        stream.add(message::Scroll{0, 12, ScrollPhase::changed, MomentumPhase::none}, 20);
        stream.add(message::Key{0, true, keyModifier::none}, 1);
        stream.add(message::Key{0, false, keyModifier::none}, 1);
        stream.add(message::Text{"你好"}, 1);
        stream.add(message::Ping{1, 2}, 1);
        stream.add(message::ClientReport{20, 60}, 1);
    }
    measure(state, stream);
}
BENCHMARK(mixedInput);

// The host's side of a frame: what is written ahead of the access unit.
void videoFrameHeads(benchmark::State& state)
{
    for (auto _ : state) benchmark::DoNotOptimize(encodeVideoFrameHead(true, 1, 100'000));
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(videoFrameHeads);

} // namespace
} // namespace pelorin

BENCHMARK_MAIN();
