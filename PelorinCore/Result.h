#pragma once

#include <cstdint>
#include <expected>
#include <span>
#include <vector>

namespace pelorin {

using Bytes = std::vector<std::uint8_t>;
using ByteView = std::span<const std::uint8_t>;

// A value, or the module's own error. Failures with a reason travel this way; plain absence is an optional.
template <class T, class E>
using Result = std::expected<T, E>;

// Stops the program with text on standard error when a promise of our own is broken. Nothing that comes from
// a phone, a file, the network or a platform may reach it.
void require(bool condition, const char* text);

} // namespace pelorin
