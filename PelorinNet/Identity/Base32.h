#pragma once

#include "PelorinCore/Result.h"

#include <string>

namespace pelorin::Base32 {

// RFC 4648, section 6, in lower case and without padding.
std::string encode(ByteView bytes);

} // namespace pelorin::Base32
