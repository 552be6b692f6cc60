#pragma once

#include "PelorinCore/Result.h"

#include <optional>
#include <string>
#include <string_view>

namespace pelorin {

// RFC 4648, section 5, without padding: the form of secrets in links.
std::string base64URLEncodedString(ByteView bytes);
// Nothing for characters outside the alphabet, an impossible length, or bits left over that are not zero.
// Trailing "=" are accepted, up to a multiple of four characters.
std::optional<Bytes> bytesFromBase64URL(std::string_view text);

// RFC 4648, section 4, with padding: the form of bytes in JSON files. Reading is as strict, and the padding
// must be there.
std::string base64EncodedString(ByteView bytes);
std::optional<Bytes> bytesFromBase64(std::string_view text);

} // namespace pelorin
