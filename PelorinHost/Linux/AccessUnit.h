#pragma once

#include "PelorinCore/Wire/Message.h"

namespace pelorin {

// One access unit in the form that goes to the phone, made from whatever form an encoder gives it.
struct AccessUnit {
    std::vector<Bytes> parameterSets; // in their order, without length or start code
    Bytes data; // the slices, each behind its 4-byte big-endian length
};

// From Annex B (start codes) or from 4-byte lengths, told apart by the first bytes. Delimiters, SEI and
// filler are dropped; so is a NAL unit that isn't whole.
AccessUnit packAccessUnit(VideoCodec codec, ByteView encoded);

} // namespace pelorin
