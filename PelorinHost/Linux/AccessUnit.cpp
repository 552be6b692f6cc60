#include "PelorinHost/Linux/AccessUnit.h"

#include <algorithm>

namespace pelorin {
namespace {

constexpr std::uint8_t startCode[] = {0, 0, 1};
constexpr std::size_t lengthSize = 4;

enum class NalKind { slice, parameterSet, other };

NalKind kindOf(VideoCodec codec, ByteView unit)
{
    if (codec == VideoCodec::hevc) {
        const int type = unit[0] >> 1 & 0x3F;
        if (type < 32) return NalKind::slice;
        return type <= 34 ? NalKind::parameterSet : NalKind::other; // VPS, SPS, PPS
    }
    const int type = unit[0] & 0x1F;
    if (type >= 1 && type <= 5) return NalKind::slice;
    return type == 7 || type == 8 ? NalKind::parameterSet : NalKind::other; // SPS, PPS
}

void add(AccessUnit& unit, VideoCodec codec, ByteView nal)
{
    if (nal.empty()) return;
    const NalKind kind = kindOf(codec, nal);
    if (kind == NalKind::parameterSet) unit.parameterSets.emplace_back(nal.begin(), nal.end());
    if (kind != NalKind::slice) return;
    const auto length = static_cast<std::uint32_t>(nal.size());
    for (int shift = 24; shift >= 0; shift -= 8)
        unit.data.push_back(static_cast<std::uint8_t>(length >> shift));
    unit.data.insert(unit.data.end(), nal.begin(), nal.end());
}

bool isAnnexB(ByteView encoded)
{
    // Three or four bytes of start code. As a length, the latter would say one byte, which no NAL unit has.
    const auto begins = [&](std::size_t at) {
        return encoded.size() >= at + 3 && std::ranges::equal(encoded.subspan(at, 3), startCode);
    };
    return begins(0) || (begins(1) && encoded[0] == 0);
}

AccessUnit fromAnnexB(VideoCodec codec, ByteView encoded)
{
    AccessUnit unit;
    unit.data.reserve(encoded.size() + 16);
    while (true) {
        const auto code = std::ranges::search(encoded, startCode);
        if (code.empty()) return unit;
        encoded = encoded.subspan(static_cast<std::size_t>(code.end() - encoded.begin()));
        const auto next = std::ranges::search(encoded, startCode);
        ByteView nal = encoded.first(static_cast<std::size_t>(next.begin() - encoded.begin()));
        // Zeros behind a NAL unit belong to the next start code: a NAL unit never ends with one.
        while (!nal.empty() && nal.back() == 0) nal = nal.first(nal.size() - 1);
        add(unit, codec, nal);
    }
}

AccessUnit fromLengths(VideoCodec codec, ByteView encoded)
{
    AccessUnit unit;
    unit.data.reserve(encoded.size());
    while (encoded.size() > lengthSize) {
        std::size_t length = 0;
        for (std::size_t i = 0; i < lengthSize; ++i) length = length << 8 | encoded[i];
        encoded = encoded.subspan(lengthSize);
        if (length > encoded.size()) break;
        add(unit, codec, encoded.first(length));
        encoded = encoded.subspan(length);
    }
    return unit;
}

} // namespace

AccessUnit packAccessUnit(VideoCodec codec, ByteView encoded)
{
    return isAnnexB(encoded) ? fromAnnexB(codec, encoded) : fromLengths(codec, encoded);
}

} // namespace pelorin
