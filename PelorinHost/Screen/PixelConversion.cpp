#include "PelorinHost/Screen/PixelConversion.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "PelorinHost/Screen/PixelConversion.cpp"
#include <hwy/foreach_target.h>
#include <hwy/highway.h>

#include <cstring>

HWY_BEFORE_NAMESPACE();
namespace pelorin::HWY_NAMESPACE {
namespace {

namespace hn = hwy::HWY_NAMESPACE;
using Words = hn::ScalableTag<std::int32_t>; // one lane a pixel
using HalfWords = hn::Repartition<std::int16_t, Words>;
using WordVector = hn::Vec<Words>;

// The matrix in 15-bit fixed point. Each chroma row sums to zero, so that grey stays exactly grey.
constexpr int fractionBits = 15;
struct Weights {
    std::int16_t blue, green, red;
};
constexpr Weights lumaWeights{2032, 20127, 5983};
constexpr Weights cbWeights{14392, -11094, -3298};
constexpr Weights crWeights{-1320, -13072, 14392};

// Blue and red of a pixel as the two halves of its lane, green alone in the lower half of another: products
// and sums then stay within the lane.
struct Channels {
    WordVector blueRed, green;
};

HWY_INLINE Channels load(const std::uint8_t* pixels)
{
    const Words words;
    const auto packed = hn::LoadU(words, reinterpret_cast<const std::int32_t*>(pixels));
    return {hn::And(packed, hn::Set(words, 0x00FF00FF)),
        hn::And(hn::ShiftRight<8>(packed), hn::Set(words, 0x000000FF))};
}

HWY_INLINE WordVector pairSums(WordVector values, std::int16_t low, std::int16_t high)
{
    const Words words;
#if HWY_ARCH_X86 && HWY_TARGET != HWY_EMU128 && HWY_TARGET != HWY_SCALAR
    const auto weights = hn::BitCast(HalfWords(),
        hn::Set(words,
            static_cast<std::int32_t>(static_cast<std::uint16_t>(low)
                | static_cast<std::uint32_t>(static_cast<std::uint16_t>(high)) << 16)));
    auto unused
        = hn::Zero(words); // here each pair's sum lands in its own lane, which is no promise elsewhere
    return hn::ReorderWidenMulAccumulate(
        words, hn::BitCast(HalfWords(), values), weights, hn::Zero(words), unused);
#else
    const auto lower = hn::And(values, hn::Set(words, 0xFFFF));
    return hn::Add(
        hn::Mul(lower, hn::Set(words, low)), hn::Mul(hn::ShiftRight<16>(values), hn::Set(words, high)));
#endif
}

HWY_INLINE WordVector weighted(const Channels& channels, Weights weights)
{
    return hn::Add(
        pairSums(channels.blueRed, weights.blue, weights.red), pairSums(channels.green, weights.green, 0));
}

HWY_INLINE void storeBytes(WordVector values, std::uint8_t* target)
{
    const hn::Rebind<std::uint8_t, Words> bytes;
    hn::StoreU(hn::DemoteTo(bytes, values), bytes, target);
}

HWY_INLINE void storeLuma(const Channels& channels, std::uint8_t* target)
{
    const auto offset = hn::Set(Words(), (16 << fractionBits) + (1 << (fractionBits - 1)));
    storeBytes(hn::ShiftRight<fractionBits>(hn::Add(weighted(channels, lumaWeights), offset)), target);
}

// Two rows of pixels, as many as fit a vector, to two rows of luma and one of chroma.
HWY_INLINE void convertBlock(const std::uint8_t* upper, const std::uint8_t* lower, std::uint8_t* upperLuma,
    std::uint8_t* lowerLuma, std::uint8_t* chroma)
{
    const Words words;
    const auto top = load(upper);
    const auto bottom = load(lower);
    storeLuma(top, upperLuma);
    storeLuma(bottom, lowerLuma);

    const Channels columns{hn::Add(top.blueRed, bottom.blueRed), hn::Add(top.green, bottom.green)};
    const auto cb = weighted(columns, cbWeights);
    const auto cr = weighted(columns, crWeights);
    const auto straight = hn::OddEven(cr, cb); // cb0 cr1 cb2 cr3
    const auto crossed = hn::Shuffle2301(hn::OddEven(cb, cr)); // cb1 cr0 cb3 cr2
    const auto offset = hn::Set(words, (128 << (fractionBits + 2)) + (1 << (fractionBits + 1)));
    storeBytes(hn::ShiftRight<fractionBits + 2>(hn::Add(hn::Add(straight, crossed), offset)), chroma);
}

// Fewer pixels than fit a vector, by way of a padded copy.
void convertNarrowBlock(const std::uint8_t* upper, const std::uint8_t* lower, int width,
    std::uint8_t* upperLuma, std::uint8_t* lowerLuma, std::uint8_t* chroma)
{
    constexpr std::size_t most = HWY_MAX_BYTES / 4;
    alignas(HWY_MAX_BYTES) std::uint8_t pixels[2][HWY_MAX_BYTES] = {};
    std::uint8_t bytes[3][most];
    const auto count = static_cast<std::size_t>(width);
    std::memcpy(pixels[0], upper, count * 4);
    std::memcpy(pixels[1], lower, count * 4);
    convertBlock(pixels[0], pixels[1], bytes[0], bytes[1], bytes[2]);
    std::memcpy(upperLuma, bytes[0], count);
    std::memcpy(lowerLuma, bytes[1], count);
    std::memcpy(chroma, bytes[2], count);
}

void convert(BgrxPixels source, int width, int height, Nv12Pixels target)
{
    const int lanes = static_cast<int>(hn::Lanes(Words()));
    for (int y = 0; y < height; y += 2) {
        const auto* upper = source.first + std::ptrdiff_t{y} * source.stride;
        const auto* lower = upper + source.stride;
        auto* upperLuma = target.luma + std::ptrdiff_t{y} * target.lumaStride;
        auto* lowerLuma = upperLuma + target.lumaStride;
        auto* chroma = target.chroma + std::ptrdiff_t{y / 2} * target.chromaStride;
        if (width < lanes) {
            convertNarrowBlock(upper, lower, width, upperLuma, lowerLuma, chroma);
            continue;
        }
        const auto block = [&](int x) {
            convertBlock(upper + 4 * x, lower + 4 * x, upperLuma + x, lowerLuma + x, chroma + x);
        };
        int x = 0;
        for (; x + lanes <= width; x += lanes) block(x);
        if (x < width) block(width - lanes); // overlaps what is done already
    }
}

} // namespace
} // namespace pelorin::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace pelorin {

HWY_EXPORT(convert);

void convertToNv12(BgrxPixels source, int width, int height, Nv12Pixels target)
{
    HWY_DYNAMIC_DISPATCH(convert)(source, width, height, target);
}

} // namespace pelorin
#endif
