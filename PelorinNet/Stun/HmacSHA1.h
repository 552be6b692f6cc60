#pragma once

#include "PelorinCore/Result.h"

#include <array>
#include <initializer_list>

namespace pelorin {

// RFC 2104, over the parts one after another. Any thread; nothing is allocated.
std::array<std::uint8_t, 20> hmacSHA1(ByteView key, std::initializer_list<ByteView> parts);

} // namespace pelorin
