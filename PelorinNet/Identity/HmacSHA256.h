#pragma once

#include "PelorinCore/Result.h"

namespace pelorin {

Bytes hmacSHA256(ByteView key, ByteView data); // 32 bytes; RFC 2104

} // namespace pelorin
