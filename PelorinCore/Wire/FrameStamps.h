#pragma once

#include "PelorinCore/Wire/Message.h"

#include <optional>

namespace pelorin {

// Where one frame's time went on the host. The frame's ptsMicros is the moment of the screen's change on the
// host's clock; each field is the time from the stage before to the end of this one, in microseconds.
//
// A phone that sets clientCapability::readsFrameStamps gets them as the first NAL unit of every access unit:
// an SEI of type user_data_unregistered (H.264 D.1.7, H.265 D.2.7), which decoders skip, so phones that know
// nothing of it lose nothing.
struct FrameStamps {
    std::uint32_t captureMicros = 0; // change on the screen to pixels in hand
    std::uint32_t convertMicros = 0; // scaled and converted to 4:2:0
    std::uint32_t encodeMicros = 0; // access unit complete
    std::uint32_t sendMicros = 0; // handed to the transport
    bool operator==(const FrameStamps&) const = default;

    // Nothing changed on the screen: the last picture was encoded again.
    bool isRepeat() const { return captureMicros == 0 && convertMicros == 0; }

    // The SEI NAL unit behind its 4-byte length.
    Bytes encodeSEI(VideoCodec codec) const;
    // Reads the stamps if the access unit (4-byte length-prefixed NAL units) begins with such an SEI.
    static std::optional<FrameStamps> parse(VideoCodec codec, ByteView accessUnit);
};

} // namespace pelorin
