#pragma once

#include <optional>
#include <string_view>

namespace pelorin {

// Takes the first Unicode scalar off text. Nothing, and text as it was, when text is empty or does not begin
// with well-formed UTF-8: no overlong forms, no surrogates, nothing above U+10FFFF.
std::optional<char32_t> takeScalar(std::string_view& text);

bool isUtf8(std::string_view text);

} // namespace pelorin
