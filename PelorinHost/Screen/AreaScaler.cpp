#include "PelorinHost/Screen/AreaScaler.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "PelorinHost/Screen/AreaScaler.cpp"
#include <hwy/foreach_target.h>
#include <hwy/highway.h>

#include <algorithm>

HWY_BEFORE_NAMESPACE();
namespace pelorin::HWY_NAMESPACE {
namespace {

namespace hn = hwy::HWY_NAMESPACE;
using Sums = hn::ScalableTag<std::uint16_t>;
using SourceBytes = hn::Rebind<std::uint8_t, Sums>;
using PixelPair = hn::FixedTag<std::uint16_t, 8>; // two pixels of four 16-bit channels
using PairVector = hn::Vec<PixelPair>;

// The weighted sum of rows, byte by byte, in 8-bit fixed point. Writes whole vectors.
void mixRows(BgrxPixels source, int rowBytes, const std::uint16_t* weights, int taps, std::uint16_t* mixed)
{
    const Sums sums;
    const SourceBytes bytes;
    const int lanes = static_cast<int>(hn::Lanes(sums));
    for (int i = 0; i < rowBytes; i += lanes) {
        auto sum = hn::Zero(sums);
        const auto* row = source.first + i;
        for (int tap = 0; tap < taps; ++tap, row += source.stride)
            sum = hn::Add(
                sum, hn::Mul(hn::PromoteTo(sums, hn::LoadU(bytes, row)), hn::Set(sums, weights[tap])));
        hn::StoreU(sum, sums, mixed + i);
    }
}

// The means of 2x2 pixels, to one row of the target: by far the most frequent reduction.
void halveRows(BgrxPixels source, int count, std::uint8_t* target)
{
    const hn::ScalableTag<std::uint32_t> pixels;
    const hn::Repartition<std::uint16_t, decltype(pixels)> sums; // two channels of a pixel
    const auto mask = hn::Set(pixels, 0x00FF00FF);
    const auto load = [&](const std::uint8_t* from) {
        return hn::LoadU(pixels, reinterpret_cast<const std::uint32_t*>(from));
    };
    const auto add = [&](auto a, auto b) {
        return hn::BitCast(pixels, hn::Add(hn::BitCast(sums, a), hn::BitCast(sums, b)));
    };
    // Of four vectors, two above each other: channels 0 and 2 of their pixels, as means.
    const auto mean = [&](auto upper0, auto upper1, auto lower0, auto lower1) {
        const auto left = add(hn::And(upper0, mask), hn::And(lower0, mask));
        const auto right = add(hn::And(upper1, mask), hn::And(lower1, mask));
        const auto sum = add(hn::ConcatEven(pixels, right, left), hn::ConcatOdd(pixels, right, left));
        const auto rounded = hn::Add(hn::BitCast(sums, sum), hn::Set(sums, 2));
        return hn::BitCast(pixels, hn::ShiftRight<2>(rounded));
    };
    const int lanes = static_cast<int>(hn::Lanes(pixels));
    int x = 0;
    for (; x + lanes <= count; x += lanes) {
        const auto* upper = source.first + 8 * x;
        const auto* lower = upper + source.stride;
        const auto u0 = load(upper), u1 = load(upper + 4 * lanes);
        const auto l0 = load(lower), l1 = load(lower + 4 * lanes);
        const auto even = mean(u0, u1, l0, l1);
        const auto odd = mean(
            hn::ShiftRight<8>(u0), hn::ShiftRight<8>(u1), hn::ShiftRight<8>(l0), hn::ShiftRight<8>(l1));
        hn::StoreU(
            hn::Or(even, hn::ShiftLeft<8>(odd)), pixels, reinterpret_cast<std::uint32_t*>(target + 4 * x));
    }
    for (int i = 4 * x; i < 4 * count; ++i) {
        const auto* upper = source.first + 8 * (i / 4) + i % 4;
        const auto* lower = upper + source.stride;
        target[i] = static_cast<std::uint8_t>((upper[0] + upper[4] + lower[0] + lower[4] + 2) / 4);
    }
}

// The even and the odd taps of one pixel, each weighted and summed.
HWY_INLINE PairVector mixPairs(const std::uint16_t* mixed, const std::uint16_t* spreadWeights, int taps)
{
    const PixelPair pair;
    auto sum = hn::MulHigh(hn::LoadU(pair, mixed), hn::LoadU(pair, spreadWeights));
    for (int tap = 2; tap < taps; tap += 2)
        sum = hn::Add(
            sum, hn::MulHigh(hn::LoadU(pair, mixed + 4 * tap), hn::LoadU(pair, spreadWeights + 4 * tap)));
    return sum;
}

// Two finished pixels, rounded to 8 bits in 16.
HWY_INLINE PairVector narrowed(PairVector firstSums, PairVector secondSums)
{
    const PixelPair pair;
    const auto both = hn::Add(
        hn::ConcatLowerLower(pair, secondSums, firstSums), hn::ConcatUpperUpper(pair, secondSums, firstSums));
    return hn::ShiftRight<8>(hn::Add(both, hn::Set(pair, 128)));
}

// One row of pixels from the mixed source row that begins at source pixel origin. count is even.
void mixColumns(const std::uint16_t* mixed, int origin, const int* first, const std::uint16_t* spreadWeights,
    int taps, int count, std::uint8_t* target)
{
    const hn::FixedTag<std::int16_t, 8> signedPair;
    const hn::FixedTag<std::uint8_t, 8> bytes;
    for (int x = 0; x < count; x += 2) {
        const auto a = mixPairs(mixed + 4 * (first[x] - origin), spreadWeights + 4 * taps * x, taps);
        const auto b
            = mixPairs(mixed + 4 * (first[x + 1] - origin), spreadWeights + 4 * taps * (x + 1), taps);
        hn::StoreU(hn::DemoteTo(bytes, hn::BitCast(signedPair, narrowed(a, b))), bytes, target + 4 * x);
    }
}

} // namespace
} // namespace pelorin::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace pelorin {

HWY_EXPORT(mixRows);
HWY_EXPORT(mixColumns);
HWY_EXPORT(halveRows);

namespace {

constexpr int rowWeightSum = 256; // with 8-bit pixels just fills 16 bits
constexpr int columnWeightSum = 65535; // as 16-bit products keep their upper half, the most that fits

} // namespace

// Lengths are in units of which a source pixel has targetLength and a target pixel sourceLength.
AreaScaler::Axis::Axis(int newSourceLength, int newTargetLength, int weightSum)
    : sourceLength(newSourceLength),
      targetLength(newTargetLength)
{
    for (int target = 0; target < targetLength; ++target) {
        const auto begin = std::int64_t{target} * sourceLength;
        first.push_back(static_cast<int>(begin / targetLength));
        counts.push_back(
            static_cast<int>((begin + sourceLength + targetLength - 1) / targetLength) - first.back());
    }
    taps = (*std::ranges::max_element(counts) + 1) & ~1;
    for (int target = 0; target < targetLength; ++target) {
        const auto index = static_cast<std::size_t>(target);
        const auto begin = std::int64_t{target} * sourceLength;
        // Rounded on the running total, so that the weights always add up.
        std::int64_t total = 0;
        for (int tap = 0; tap < taps; ++tap) {
            const auto end = std::int64_t{first[index] + tap + 1} * targetLength;
            const auto covered = std::min<std::int64_t>(sourceLength, end - begin);
            const auto newTotal = (covered * weightSum + sourceLength / 2) / sourceLength;
            weights.push_back(static_cast<std::uint16_t>(newTotal - total));
            total = newTotal;
        }
    }
}

AreaScaler::AreaScaler(int sourceWidth, int sourceHeight, int targetWidth, int targetHeight)
    : columns(sourceWidth, targetWidth, columnWeightSum),
      rows(sourceHeight, targetHeight, rowWeightSum),
      spreadWeights(columns.weights.size() * 4)
{
    for (std::size_t i = 0; i < spreadWeights.size(); ++i) spreadWeights[i] = columns.weights[i / 4];
}

PixelRect AreaScaler::targetRectOf(const PixelRect& r) const
{
    const auto begin = [](const Axis& axis, int source) {
        return static_cast<int>(std::int64_t{source} * axis.targetLength / axis.sourceLength);
    };
    const auto end = [](const Axis& axis, int source) {
        return static_cast<int>(
            (std::int64_t{source} * axis.targetLength + axis.sourceLength - 1) / axis.sourceLength);
    };
    const int left = begin(columns, r.x);
    const int top = begin(rows, r.y);
    return {left, top, end(columns, r.x + r.width) - left, end(rows, r.y + r.height) - top};
}

PixelRect AreaScaler::sourceRectOf(const PixelRect& r) const
{
    const auto begin = [](const Axis& axis, int target) {
        return static_cast<int>(std::int64_t{target} * axis.sourceLength / axis.targetLength);
    };
    const auto end = [](const Axis& axis, int target) {
        return static_cast<int>(
            (std::int64_t{target} * axis.sourceLength + axis.targetLength - 1) / axis.targetLength);
    };
    const int left = begin(columns, r.x);
    const int top = begin(rows, r.y);
    return {left, top, end(columns, r.x + r.width) - left, end(rows, r.y + r.height) - top};
}

void AreaScaler::scale(BgrxPixels source, const PixelRect& targetRect, std::uint8_t* target)
{
    const int targetStride = targetRect.width * 4;
    if (isHalving()) {
        for (int y = 0; y < targetRect.height; ++y)
            HWY_DYNAMIC_DISPATCH(halveRows)(
                {source.first + std::ptrdiff_t{2 * y} * source.stride, source.stride}, targetRect.width,
                target + std::ptrdiff_t{y} * targetStride);
        return;
    }

    const auto sourceRect = sourceRectOf(targetRect);
    const int rowBytes = sourceRect.width * 4;
    // Vectors write beyond the row, and taps without weight read there.
    const auto needed = static_cast<std::size_t>(rowBytes + 4 * columns.taps) + HWY_MAX_BYTES;
    if (mixedRow.size() < needed) mixedRow.resize(needed);

    for (int y = targetRect.y; y < targetRect.y + targetRect.height; ++y) {
        const int firstRow = rows.first[static_cast<std::size_t>(y)];
        const int taps = rows.counts[static_cast<std::size_t>(y)];
        const BgrxPixels from{
            source.first + std::ptrdiff_t{firstRow - sourceRect.y} * source.stride, source.stride};
        HWY_DYNAMIC_DISPATCH(mixRows)(from, rowBytes, rows.weightsOf(y), taps, mixedRow.data());
        HWY_DYNAMIC_DISPATCH(mixColumns)(mixedRow.data(), sourceRect.x, columns.first.data() + targetRect.x,
            spreadWeights.data() + std::ptrdiff_t{4} * columns.taps * targetRect.x, columns.taps,
            targetRect.width, target);
        target += targetStride;
    }
}

} // namespace pelorin
#endif
