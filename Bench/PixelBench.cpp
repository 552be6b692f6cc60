#include "PelorinHost/Screen/PicturePainter.h"

#include <benchmark/benchmark.h>
#include <random>

namespace pelorin {
namespace {

// What painting a whole picture costs: display's width and height, picture's width and height.
void paintWhole(benchmark::State& state)
{
    const auto size = [&state](std::size_t i) { return static_cast<int>(state.range(i)); };
    std::vector<std::uint8_t> pixels(static_cast<std::size_t>(size(0)) * static_cast<std::size_t>(size(1)) * 4
        + PicturePainter::bytesReadPastEnd);
    std::minstd_rand random(1);
    for (auto& byte : pixels) byte = static_cast<std::uint8_t>(random());
    PicturePainter painter(size(0), size(1), size(2), size(3));
    for (auto _ : state) {
        painter.paint(painter.wholePicture(), {pixels.data(), size(0) * 4});
        benchmark::ClobberMemory();
    }
}
BENCHMARK(paintWhole)
    ->Args({1920, 1080, 1920, 1080})
    ->Args({3840, 2160, 3840, 2160})
    ->Args({2560, 1440, 1280, 720})
    ->Args({3840, 2160, 1920, 1080})
    ->Args({2560, 1440, 1920, 1080})
    ->Args({1920, 1080, 1440, 810})
    ->Args({3840, 2160, 1170, 658})
    ->Unit(benchmark::kMicrosecond);

// A text cursor's blink, a line of text, a window.
void paintPart(benchmark::State& state)
{
    const std::vector<std::uint8_t> pixels(1920 * 1080 * 4 + PicturePainter::bytesReadPastEnd);
    PicturePainter painter(1920, 1080, 1920, 1080);
    const PixelRect part{400, 300, static_cast<int>(state.range(0)), static_cast<int>(state.range(1))};
    for (auto _ : state) {
        painter.paint(part, {pixels.data(), part.width * 4});
        benchmark::ClobberMemory();
    }
}
BENCHMARK(paintPart)->Args({2, 18})->Args({800, 18})->Args({416, 304})->Unit(benchmark::kMicrosecond);

} // namespace
} // namespace pelorin

BENCHMARK_MAIN();
